// event_client [SERVER]: sends 200 one-way events a second to the telemetry server, until SIGTERM, and asks at the end
// how many have arrived. Exits with failure when one that was sent over the last pipe is missing.
#include <cstdlib>
#include <cstring>
#include <thread>

#include "client_loop.h"
#include "connection.h"

namespace {

// Sends one event; 0 or a negated errno. Nothing tells whether it has been received: who must know, asks.
int SendEvent(int fd, long number) {
    std::string text = "event " + std::to_string(number);
    // The receiver sees the id; for a one-way request its meaning is up to the two programs.
    TarvoRequest request = {static_cast<uint32_t>(number), text.data(), static_cast<uint32_t>(text.size())};
    return TarvoSendRequest(fd, &request);
}

} // namespace

int main(int argc, char **argv) {
    PrepareClient();
    Connection connection(argc > 1 ? argv[1] : "telemetry", "event", TARVO_PRIORITY_NORMAL);
    long total = 0;
    long sent = 0; // over the present pipe
    long deferred = 0;
    int opened = 0;
    int fd = 0;
    while (!EndRequested()) {
        fd = connection.Handle();
        if (fd < 0) {
            return EXIT_FAILURE;
        }
        if (connection.Opened() != opened) {
            opened = connection.Opened();
            sent = 0; // what an earlier pipe still held when the server went is lost
        }
        const int result = SendEvent(fd, total);
        connection.Report(result);
        if (result == 0) {
            ++total;
            ++sent;
        } else if (result == -EAGAIN) {
            ++deferred; // the FIFO is full: the same event goes with the next turn
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // Requests of one pipe are served in order, so all earlier events have been counted when this is answered.
    const Answer answer = Ask(fd, "events", 2000);
    std::printf("event: %ld sent, %ld of them over the last pipe, where the server counted %s; %ld deferred, "
                "%d connections\n",
                total, sent, answer.result == 0 ? answer.text.c_str() : std::strerror(-answer.result), deferred,
                connection.Opened());
    return answer.result == 0 && answer.text == std::to_string(sent) ? EXIT_SUCCESS : EXIT_FAILURE;
}
