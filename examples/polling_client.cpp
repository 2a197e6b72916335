// polling_client [SERVER]: asks the telemetry server for one reading after another, 50 times a second, until SIGTERM.
// Exits with failure when a question stayed without an answer while the server ran.
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "client_loop.h"

int main(int argc, char **argv) try {
    PrepareClient();
    tarvo::Client client(argc > 1 ? argv[1] : "telemetry", tarvo::Options().As("polling"), Telling("polling"));
    const std::string questions[] = {"load", "memory", "process " + std::to_string(getpid())};
    Latencies latencies;
    int answered = 0;
    int cutOff = 0;
    int missing = 0;
    while (AwaitServer(client, "polling")) {
        const std::string &question = questions[answered % 3];
        const auto start = Latencies::Clock::now();
        std::error_code error;
        const std::string answer = client.Call(question, 2s, error).Text();
        if (!error && answer.compare(0, 5, "error") != 0) {
            latencies.Add(start);
            if (answered++ % 50 < 3) {
                std::printf("polling: %s -> %s\n", question.c_str(), answer.c_str());
            }
        } else if (IsGone(error)) {
            ++cutOff;
        } else {
            ++missing;
            std::printf("polling: %s -> no answer: %s %s\n", question.c_str(), error.message().c_str(), answer.c_str());
        }
        std::this_thread::sleep_for(20ms);
    }
    latencies.Print("polling");
    std::printf("polling: %d answered, %d cut off by the end of the server, %d missing, %ld connections\n", answered,
                cutOff, missing, client.Connections());
    return EndRequested() && answered > 0 && missing == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
} catch (const std::exception &error) { // a name that no server can have
    std::fprintf(stderr, "polling: %s\n", error.what());
    return EXIT_FAILURE;
}
