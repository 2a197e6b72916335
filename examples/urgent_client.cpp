// urgent_client [SERVER]: asks for the load 100 times a second with real-time priority and a time-out, until SIGTERM.
// Exits with failure when an answer did not come in time while the server ran.
#include <sched.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "client_loop.h"

namespace {

constexpr auto TIMEOUT = 500ms;

// The library schedules its own threads; the one that calls is the caller's. Threads that it starts do not inherit the
// class: the library gives each of its threads the class that its work asks for.
void AskForRealTime() {
    sched_param parameters = {};
    parameters.sched_priority = 50;
    if (sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) == 0) {
        std::printf("urgent: runs in real time\n");
    } else {
        std::printf("urgent: no right to real-time scheduling (%s), goes on without\n", std::strerror(errno));
    }
}

} // namespace

int main(int argc, char **argv) try {
    PrepareClient();
    AskForRealTime();
    // The priority of the pipe is that of the thread which receives the answers.
    tarvo::Client client(argc > 1 ? argv[1] : "telemetry",
                         tarvo::Options().As("urgent").Priority(TARVO_PRIORITY_URGENT), Telling("urgent"));
    Latencies latencies;
    int answered = 0;
    int cutOff = 0;
    int late = 0;
    while (AwaitServer(client, "urgent")) {
        const auto start = Latencies::Clock::now();
        std::error_code error;
        const tarvo::Response answer = client.Call("load", TIMEOUT, error);
        if (!error) {
            latencies.Add(start);
            if (answered++ % 200 == 0) {
                std::printf("urgent: load -> %s\n", answer.Text().c_str());
            }
        } else if (error == std::errc::timed_out) {
            ++late;
            std::printf("urgent: no answer within %d ms\n", static_cast<int>(TIMEOUT.count()));
        } else {
            ++cutOff; // the server went away before it answered
        }
        std::this_thread::sleep_for(10ms);
    }
    latencies.Print("urgent");
    std::printf("urgent: %d answered, %d cut off by the end of the server, %d late, %ld connections\n", answered,
                cutOff, late, client.Connections());
    return EndRequested() && answered > 0 && late == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception &error) { // a name that no server can have
    std::fprintf(stderr, "urgent: %s\n", error.what());
    return EXIT_FAILURE;
}
