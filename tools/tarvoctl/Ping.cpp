// tarvoctl ping: calls a server again and again and tells how long the answers take.
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>

#include "pipe/Message.h"
#include "shared/Client.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Histogram.h"
#include "shared/Output.h"
#include "tarvo.h"

namespace tarvoctl {
namespace {

using Clock = std::chrono::steady_clock;

struct PingOptions {
    ClientOptions client;
    uint64_t count = 0; // 0: until interrupted
    uint32_t size = 64;
    Duration interval{std::chrono::seconds(1)};
    Duration timeout{std::chrono::seconds(1)};
    bool json = false;
};

// One run of the subcommand: a server that goes away and comes back is called again, and the calls between are losses.
class Pinger {
public:
    Pinger(const PingOptions &pingOptions, Interrupt &pingInterrupt)
        : options(pingOptions), interrupt(pingInterrupt), client(pingOptions.client, pingInterrupt),
          request(pingOptions.size, 'p') {}

    int Run();

private:
    int CallOnce(std::chrono::nanoseconds &duration);
    void PrintAnswer(uint64_t sequence, std::chrono::nanoseconds duration) const;
    void PrintLoss(uint64_t sequence, int result) const;
    void PrintSummary(std::chrono::nanoseconds total) const;

    const PingOptions &options;
    Interrupt &interrupt;
    Client client;
    bool connected = false;
    std::string request;
    uint64_t calls = 0;
    Histogram times;
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

void Pinger::PrintAnswer(uint64_t sequence, std::chrono::nanoseconds duration) const {
    const auto nanoseconds = static_cast<double>(duration.count());
    if (options.json) {
        PutJson({{"seq", sequence}, {"size", options.size}, {"time_us", nanoseconds / 1e3}});
        return;
    }
    Put(fmt::format("{} bytes to {}: seq={} time={}\n", options.size, options.client.server, sequence,
                    DurationText(nanoseconds)));
}

void Pinger::PrintLoss(uint64_t sequence, int result) const {
    const Failure failure = Explain(result, options.client.server);
    if (options.json) {
        PutJson({{"seq", sequence}, {"size", options.size}, {"error", failure.text}});
        return;
    }
    Put(fmt::format("seq={} lost: {}\n", sequence, failure.text));
}

void Pinger::PrintSummary(std::chrono::nanoseconds total) const {
    const uint64_t lost = calls - times.Count();
    const double loss = calls == 0 ? 0 : 100.0 * static_cast<double>(lost) / static_cast<double>(calls);
    const auto microseconds = [](double nanoseconds) { return nanoseconds / 1e3; };
    if (options.json) {
        nlohmann::json summary = {{"server", options.client.server},
                                  {"calls", calls},
                                  {"answers", times.Count()},
                                  {"lost", lost},
                                  {"loss_percent", loss}};
        if (times.Count() > 0) {
            summary["min_us"] = microseconds(static_cast<double>(times.Min()));
            summary["mean_us"] = microseconds(times.Mean());
            summary["p50_us"] = microseconds(static_cast<double>(times.Percentile(50)));
            summary["p99_us"] = microseconds(static_cast<double>(times.Percentile(99)));
            summary["max_us"] = microseconds(static_cast<double>(times.Max()));
        }
        PutJson({{"summary", summary}});
        return;
    }
    Put(fmt::format("\n--- {} ping statistics ---\n{} calls, {} answers, {} lost ({:.4g}%), time {}\n",
                    options.client.server, calls, times.Count(), lost, loss,
                    DurationText(static_cast<double>(total.count()))));
    if (times.Count() > 0) {
        Put(fmt::format(
            "min/mean/p50/p99/max = {} / {} / {} / {} / {}\n", DurationText(static_cast<double>(times.Min())),
            DurationText(times.Mean()), DurationText(static_cast<double>(times.Percentile(50))),
            DurationText(static_cast<double>(times.Percentile(99))), DurationText(static_cast<double>(times.Max()))));
    }
}

int Pinger::Run() {
    // The first connection decides whether there is a server at all.
    const int status = client.Connect();
    if (status != EXIT_DONE) {
        return status;
    }
    connected = true;
    const auto start = Clock::now();
    while (!interrupt.Requested()) {
        std::chrono::nanoseconds duration(0);
        const int result = CallOnce(duration);
        if (interrupt.Requested() && result != 0) {
            break; // cut off by the interrupt: neither answered nor lost
        }
        ++calls;
        if (result == 0) {
            times.Add(static_cast<uint64_t>(duration.count()));
            PrintAnswer(calls, duration);
        } else {
            PrintLoss(calls, result);
        }
        if (!FlushAnswer() || calls == options.count || interrupt.WaitFor(options.interval.value)) {
            break;
        }
    }
    PrintSummary(Clock::now() - start);
    return times.Count() > 0 ? EXIT_DONE : EXIT_NO_ANSWER;
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
    sub.Add("-s,--size", options->size, "Bytes of a request")
        .Range(1, Message::MAX_PAYLOAD_LEN)
        .Type("BYTES")
        .ShowDefault();
    sub.Add("-W,--timeout", options->timeout, "A call without answer for so long is lost (1s)");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return Pinger(*options, interrupt).Run(); };
    });
}

} // namespace tarvoctl
