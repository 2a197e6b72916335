// tarvoctl wait: waits until somebody serves under a name.
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>

#include "shared/Client.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "shared/ServerName.h"
#include "wait/ServerWatch.h"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

struct WaitOptions {
    std::string server;
    std::optional<Duration> timeout;
    bool json = false;
};

int Arrived(const WaitOptions &options, Clock::duration waited) {
    if (options.json) {
        PutJson({{"server", options.server},
                 {"time_us", static_cast<double>(std::chrono::nanoseconds(waited).count()) / 1e3}});
    }
    return EXIT_DONE;
}

int TimedOut(const WaitOptions &options, Presence presence) {
    if (presence == Presence::NO_RIGHT) {
        return EXIT_FAILED; // told when it was found
    }
    Diagnose("no server has come under the name '{}' in time{}", options.server,
             presence == Presence::NO_READER ? ": its file is there, and nobody reads it" : "");
    return EXIT_NO_ANSWER;
}

int RunWait(const WaitOptions &options, const Interrupt &interrupt) {
    if (!NameIsValid(options.server)) {
        const Failure failure = Explain(-EINVAL, options.server);
        Diagnose("{}", failure.text);
        return failure.exitStatus;
    }
    const auto start = Clock::now();
    ServerWatch watch(options.server);
    bool told = false;
    for (;;) {
        const Presence presence = watch.Look();
        if (presence == Presence::SERVING) {
            return Arrived(options, Clock::now() - start);
        }
        if (presence == Presence::NO_RIGHT && !told) {
            // Somebody who sets the machine up right now may still grant it.
            Diagnose("no right to the FIFO of '{}' so far (see: tarvoctl doctor)", options.server);
            told = true;
        }
        std::optional<std::chrono::microseconds> left;
        if (options.timeout) {
            left = std::chrono::duration_cast<std::chrono::microseconds>(start + options.timeout->value - Clock::now());
            if (left->count() <= 0) {
                return TimedOut(options, presence);
            }
        }
        if (watch.Wait(interrupt.Fd(), left)) {
            return EXIT_INTERRUPTED;
        }
    }
}

} // namespace

void AddWait(CommandLine &app, Command &command) {
    auto options = std::make_shared<WaitOptions>();
    CommandLine sub =
        AddSubcommand(app, command, "wait", "Wait until somebody serves under a name",
                      "0 a server is there; 1 this user has no right to it; 2 wrong usage; 4 none has come "
                      "in time; 130 interrupted.");
    sub.Add("NAME", options->server, "Name that the server serves under").Required();
    sub.Add("--timeout", options->timeout, "How long to wait (default: for ever); 0 looks once");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunWait(*options, interrupt); };
    });
}

} // namespace tarvoctl
