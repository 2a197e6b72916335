// tarvoctl send: sends one-way requests and ends when the server has read them.
#include <cerrno>
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

struct SendOptions {
    ClientOptions client;
    PayloadOptions payload;
    Duration timeout{std::chrono::seconds(1)};
    uint64_t repeat = 1;
    Duration interval;
    bool json = false;
};

// Sends one request, and waits for room where the server does not keep up.
int SendOnce(const SendOptions &options, const Client &client, std::string &request, const Interrupt &interrupt) {
    int result = client.Send(request);
    const auto end = std::chrono::steady_clock::now() + options.timeout.value;
    while (result == -EAGAIN && !interrupt.Requested() && std::chrono::steady_clock::now() < end) {
        client.AwaitRoom(std::chrono::milliseconds(10));
        result = client.Send(request);
    }
    return result;
}

int SendAll(const SendOptions &options, const Client &client, std::string &request, const Interrupt &interrupt,
            uint64_t &sent) {
    for (; sent < options.repeat; ++sent) {
        if (sent > 0 && interrupt.WaitFor(options.interval.value)) {
            return -EINTR;
        }
        const int result = SendOnce(options, client, request, interrupt);
        if (result != 0) {
            return result;
        }
    }
    return client.AwaitRead(options.timeout.value);
}

int RunSend(const SendOptions &options, Interrupt &interrupt) {
    std::optional<std::string> request = ReadPayload(options.payload, interrupt);
    if (!request) {
        return EXIT_USAGE;
    }
    Client client(options.client, interrupt);
    const int connected = client.Connect();
    if (connected != EXIT_DONE) {
        return connected;
    }
    client.KeepWriteEnd();
    uint64_t sent = 0;
    const int result = SendAll(options, client, *request, interrupt, sent);
    if (options.json) {
        PutJson({{"server", options.client.server},
                 {"sent", sent},
                 {"size", request->size()},
                 {"read", result == 0}}); // by the server's process; what its callback does, only an answer could tell
    }
    if (interrupt.Requested()) {
        return EXIT_INTERRUPTED;
    }
    if (result == -ETIMEDOUT) {
        Diagnose("'{}' has not read all of the {} requests in time", options.client.server, sent);
        return EXIT_NO_ANSWER;
    }
    if (result != 0) {
        const Failure failure = Explain(result, options.client.server);
        Diagnose("{}; sent {} of {}", failure.text, sent, options.repeat);
        return failure.exitStatus;
    }
    return EXIT_DONE;
}

} // namespace

void AddSend(CommandLine &app, Command &command) {
    auto options = std::make_shared<SendOptions>();
    CommandLine sub =
        AddSubcommand(app, command, "send", "Send one-way requests; nothing comes back",
                      "0 the server's process has read them; 1 failed; 2 wrong usage; 3 no such server; 4 "
                      "not read in time; 130 interrupted.");
    AddClientOptions(sub, options->client);
    AddPayloadOptions(sub, options->payload);
    sub.Add("--timeout", options->timeout, "How long the server may take to make room and to read (1s)");
    sub.Add("--repeat", options->repeat, "Number of requests").AtLeastOne().Type("N").ShowDefault();
    sub.Add("--interval", options->interval, "Pause between two requests (0)");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunSend(*options, interrupt); };
    });
}

} // namespace tarvoctl
