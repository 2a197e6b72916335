// polling_client [SERVER]: asks the telemetry server for one reading after another, 50 times a second, until SIGTERM.
// Exits with failure when a question stayed without an answer while the server ran.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "client_loop.h"
#include "connection.h"

int main(int argc, char **argv) {
    PrepareClient();
    Connection connection(argc > 1 ? argv[1] : "telemetry", "polling", TARVO_PRIORITY_NORMAL);
    const std::string questions[] = {"load", "memory", "process " + std::to_string(getpid())};
    Latencies latencies;
    int answered = 0;
    int cutOff = 0;
    int missing = 0;
    while (!EndRequested()) {
        const int fd = connection.Handle();
        if (fd < 0) {
            return EXIT_FAILURE;
        }
        const std::string &question = questions[answered % 3];
        const Answer answer = Ask(fd, question, 2000);
        connection.Report(answer.result);
        if (answer.result == 0 && answer.text.compare(0, 5, "error") != 0) {
            latencies.Add(answer.duration);
            if (answered++ % 50 < 3) {
                std::printf("polling: %s -> %s\n", question.c_str(), answer.text.c_str());
            }
        } else if (answer.result == -EPIPE || answer.result == -ENOENT || answer.result == -1) {
            ++cutOff; // the server went away before it answered
        } else {
            ++missing;
            std::printf("polling: %s -> no answer: %s %s\n", question.c_str(), std::strerror(-answer.result),
                        answer.text.c_str());
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    latencies.Print("polling");
    std::printf("polling: %d answered, %d cut off by the end of the server, %d missing, %d connections\n", answered,
                cutOff, missing, connection.Opened());
    return answered > 0 && missing == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
