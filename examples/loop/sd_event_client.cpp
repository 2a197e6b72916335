// sd_event_client [SERVER]: has the lines server count letters, from within systemd's sd-event.
#include "lines_client.h"
#include "sd_event_watch.h"

int main(int argc, char **argv) {
    return RunLinesClient<SdEventWatch>("sd_event_client", argc > 1 ? argv[1] : "lines", 1000);
}
