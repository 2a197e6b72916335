// tarvoctl call: sends a request and prints the answer.
#include <unistd.h>

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "shared/Client.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "shared/Payload.h"

namespace tarvoctl {
namespace {

struct CallOptions {
    ClientOptions client;
    PayloadOptions payload;
    Duration timeout{std::chrono::seconds(1)};
    bool unlimited = false;
    uint64_t repeat = 1;
    Duration interval;
    bool json = false;
};

void PrintAnswer(const CallOptions &options, const std::string &answer, std::chrono::nanoseconds duration) {
    if (options.json) {
        nlohmann::json object = {{"server", options.client.server},
                                 {"time_us", static_cast<double>(duration.count()) / 1e3}};
        AddPayloadFields(object, answer);
        PutJson(object);
        return;
    }
    // One answer alone is passed on byte for byte, so that it can go into a file; several stand on lines of their own.
    const bool line = options.payload.hex || options.repeat != 1;
    const std::string text = options.payload.hex ? HexOfBytes(answer) : answer;
    Put(text);
    if (line || isatty(STDOUT_FILENO) == 1) {
        Put(text.empty() || text.back() != '\n' ? "\n" : "");
    }
}

int CallOnce(const CallOptions &options, Client &client, std::string &request) {
    std::string answer;
    const auto start = std::chrono::steady_clock::now();
    const int result = client.Call(request, options.unlimited ? -1 : options.timeout.Milliseconds(), answer);
    const auto end = std::chrono::steady_clock::now();
    if (result == 0) {
        PrintAnswer(options, answer, end - start);
    }
    return result;
}

int RunCall(const CallOptions &options, Interrupt &interrupt) {
    std::optional<std::string> request = ReadPayload(options.payload, interrupt);
    if (!request) {
        return EXIT_USAGE;
    }
    Client client(options.client, interrupt);
    int status = client.Connect();
    if (status != EXIT_DONE) {
        return status;
    }
    for (uint64_t i = 0; i < options.repeat; ++i) {
        if (i > 0 && interrupt.WaitFor(options.interval.value)) {
            return EXIT_INTERRUPTED;
        }
        const int result = CallOnce(options, client, *request);
        if (interrupt.Requested()) {
            return EXIT_INTERRUPTED;
        }
        if (!FlushAnswer()) {
            return EXIT_FAILED;
        }
        if (result != 0) {
            const Failure failure = Explain(result, options.client.server);
            Diagnose("{}", failure.text);
            status = failure.exitStatus;
        }
        if (result != 0 && result != -ETIMEDOUT) {
            break; // the pipe is gone, and with it every later call
        }
    }
    return status;
}

} // namespace

void AddCall(CommandLine &app, Command &command) {
    auto options = std::make_shared<CallOptions>();
    CommandLine sub = AddSubcommand(app, command, "call", "Send a request and print the answer",
                                    "0 answered; 1 failed; 2 wrong usage; 3 no such server; 4 no answer in time; 130 "
                                    "interrupted. Of several calls the last failure counts.");
    AddClientOptions(sub, options->client);
    AddPayloadOptions(sub, options->payload);
    Option timeout = sub.Add("--timeout", options->timeout, "How long to wait for the answer (1s)");
    sub.Flag("--no-timeout", options->unlimited, "Wait for as long as the pipe is open").Excludes(timeout);
    sub.Add("--repeat", options->repeat, "Number of calls").AtLeastOne().Type("N").ShowDefault();
    sub.Add("--interval", options->interval, "Pause between two calls (0)");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunCall(*options, interrupt); };
    });
}

} // namespace tarvoctl
