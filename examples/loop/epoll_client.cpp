// epoll_client [SERVER]: has the lines server count letters, from within an epoll loop of its own.
#include "epoll_watch.h"
#include "lines_client.h"

int main(int argc, char **argv) {
    return RunLinesClient<EpollWatch>("epoll_client", argc > 1 ? argv[1] : "lines", 1000);
}
