// asio_client [SERVER]: has the lines server count letters, from within an io_context of Asio.
#include "asio_watch.h"
#include "lines_client.h"

int main(int argc, char **argv) { return RunLinesClient<AsioWatch>("asio_client", argc > 1 ? argv[1] : "lines", 1000); }
