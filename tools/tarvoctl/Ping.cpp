// tarvoctl ping: calls a server again and again and tells how long the answers take.
#include <chrono>
#include <memory>

#include "ping/LoopPinger.h"
#include "ping/Report.h"
#include "pipe/Message.h"
#include "shared/Client.h"
#include "shared/Command.h"
#include "shared/Engine.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

// One run of the subcommand: a server that goes away and comes back is called again, and the calls between are losses.
class Pinger {
public:
    Pinger(const PingOptions &pingOptions, Interrupt &pingInterrupt)
        : options(pingOptions), interrupt(pingInterrupt), client(pingOptions.client, pingInterrupt),
          request(pingOptions.size, 'p'), report(pingOptions) {}

    int Run();

private:
    int CallOnce(std::chrono::nanoseconds &duration);

    const PingOptions &options;
    Interrupt &interrupt;
    Client client;
    bool connected = false;
    std::string request;
    PingReport report;
};

int Pinger::CallOnce(std::chrono::nanoseconds &duration) {
    if (!connected) {
        client.Close();
        const int opened = client.Open();
        if (opened != 0) {
            return opened;
        }
        connected = true;
    }
    std::string answer;
    const auto start = Clock::now();
    const int result = client.Call(request, options.timeout.Milliseconds(), answer);
    duration = Clock::now() - start;
    connected = result == 0 || result == -ETIMEDOUT;
    return result;
}

int Pinger::Run() {
    // The first connection decides whether there is a server at all.
    const int status = client.Connect();
    if (status != EXIT_DONE) {
        return status;
    }
    connected = true;
    report.Start();
    while (!interrupt.Requested()) {
        std::chrono::nanoseconds duration(0);
        const int result = CallOnce(duration);
        if (interrupt.Requested() && result != 0) {
            break; // cut off by the interrupt: neither answered nor lost
        }
        const uint64_t sequence = report.Calls() + 1;
        if (result == 0) {
            report.Answer(sequence, duration);
        } else {
            report.Loss(sequence, result);
        }
        if (!FlushAnswer() || sequence == options.count || interrupt.WaitFor(options.interval.value)) {
            break;
        }
    }
    return report.Finish();
}

// One call at a time stays with the library's threads.
int RunPing(const PingOptions &options, Interrupt &interrupt) {
    if (options.outstanding == 1) {
        return Pinger(options, interrupt).Run();
    }
    return LoopHasPriority(options.client.priority) ? LoopPinger(options, interrupt).Run() : EXIT_USAGE;
}

} // namespace

void AddPing(CommandLine &app, Command &command) {
    auto options = std::make_shared<PingOptions>();
    CommandLine sub = AddSubcommand(app, command, "ping", "Call a server again and again and time the answers",
                                    "0 at least one call was answered; 2 wrong usage; 3 no such server; 4 no answer. "
                                    "Ctrl-C prints the statistics and ends with these codes.");
    AddClientOptions(sub, options->client);
    sub.Add("-c,--count", options->count, "End after so many calls (default: on Ctrl-C)").AtLeastOne().Type("N");
    sub.Add("-i,--interval", options->interval, "Pause between two calls (1s)");
    sub.Add("--outstanding", options->outstanding,
            "Calls under way at the same time, on the loop; each is followed by another one after the pause")
        .Range(1, MAX_OUTSTANDING)
        .Type("N")
        .ShowDefault();
    sub.Add("-s,--size", options->size, "Bytes of a request")
        .Range(1, Message::MAX_PAYLOAD_LEN)
        .Type("BYTES")
        .ShowDefault();
    sub.Add("-W,--timeout", options->timeout, "A call without answer for so long is lost (1s)");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunPing(*options, interrupt); };
    });
}

} // namespace tarvoctl
