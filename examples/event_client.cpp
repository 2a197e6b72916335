// event_client [SERVER]: sends 200 one-way events a second to the telemetry server, until SIGTERM, and asks at the end
// how many have arrived. Exits with failure when one that was sent over the last pipe is missing.
#include <cstdlib>
#include <thread>

#include "client_loop.h"

namespace {

// How many events have come over the present pipe. Requests of one pipe are served in order, so all earlier events have
// been counted when this is answered.
std::string CountAtServer(tarvo::Client &client) {
    std::error_code error;
    const tarvo::Response answer = client.Call("events", 2s, error);
    return error ? error.message() : answer.Text();
}

} // namespace

int main(int argc, char **argv) try {
    PrepareClient();
    tarvo::Client client(argc > 1 ? argv[1] : "telemetry", tarvo::Options().As("event"), Telling("event"));
    long total = 0;
    long sent = 0; // over the present pipe
    long deferred = 0;
    long connections = 0;
    while (AwaitServer(client, "event")) {
        if (client.Connections() != connections) {
            connections = client.Connections();
            sent = std::atol(CountAtServer(client).c_str()); // what an earlier pipe still held is lost
        }
        // The receiver sees the id; for a one-way request its meaning is up to the two programs. Nothing tells whether
        // the request has been received: who must know, asks.
        std::error_code error;
        client.Send("event " + std::to_string(total), static_cast<uint32_t>(total), error);
        if (!error) {
            ++total;
            ++sent;
        } else if (error == std::errc::resource_unavailable_try_again) {
            ++deferred; // the FIFO is full: the same event goes with the next turn
        }
        std::this_thread::sleep_for(5ms);
    }
    const std::string counted = CountAtServer(client);
    std::printf("event: %ld sent, %ld of them over the last pipe, where the server counted %s; %ld deferred, "
                "%ld connections\n",
                total, sent, counted.c_str(), deferred, client.Connections());
    return EndRequested() && counted == std::to_string(sent) ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception &error) { // a name that no server can have
    std::fprintf(stderr, "event: %s\n", error.what());
    return EXIT_FAILURE;
}
