// urgent_client [SERVER]: asks for the load 100 times a second with real-time priority and a time-out, until SIGTERM.
// Exits with failure when an answer did not come in time while the server ran.
#include <sched.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "client_loop.h"
#include "connection.h"

namespace {

constexpr int TIMEOUT_MS = 500;

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

int main(int argc, char **argv) {
    PrepareClient();
    AskForRealTime();
    // The priority of the pipe is that of the thread which receives the answers.
    Connection connection(argc > 1 ? argv[1] : "telemetry", "urgent", TARVO_PRIORITY_URGENT);
    Latencies latencies;
    int answered = 0;
    int cutOff = 0;
    int late = 0;
    while (!EndRequested()) {
        const int fd = connection.Handle();
        if (fd < 0) {
            return EXIT_FAILURE;
        }
        const Answer answer = Ask(fd, "load", TIMEOUT_MS);
        connection.Report(answer.result);
        if (answer.result == 0) {
            latencies.Add(answer.duration);
            if (answered++ % 200 == 0) {
                std::printf("urgent: load -> %s\n", answer.text.c_str());
            }
        } else if (answer.result == -ETIMEDOUT) {
            ++late;
            std::printf("urgent: no answer within %d ms\n", TIMEOUT_MS);
        } else {
            ++cutOff; // the server went away before it answered
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    latencies.Print("urgent");
    std::printf("urgent: %d answered, %d cut off by the end of the server, %d late, %d connections\n", answered, cutOff,
                late, connection.Opened());
    return answered > 0 && late == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
