// glib_client [SERVER]: has the lines server count letters, from within a main loop of GLib.
#include "glib_watch.h"
#include "lines_client.h"

int main(int argc, char **argv) { return RunLinesClient<GlibWatch>("glib_client", argc > 1 ? argv[1] : "lines", 1000); }
