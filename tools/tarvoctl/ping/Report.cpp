#include "ping/Report.h"

#include <nlohmann/json.hpp>

#include "shared/ExitCode.h"
#include "shared/Output.h"

namespace tarvoctl {

void PingReport::Answer(uint64_t sequence, std::chrono::nanoseconds duration) {
    ++calls;
    times.Add(static_cast<uint64_t>(duration.count()));
    const auto nanoseconds = static_cast<double>(duration.count());
    if (options.json) {
        PutJson({{"seq", sequence}, {"size", options.size}, {"time_us", nanoseconds / 1e3}});
        return;
    }
    Put(fmt::format("{} bytes to {}: seq={} time={}\n", options.size, options.client.server, sequence,
                    DurationText(nanoseconds)));
}

void PingReport::Loss(uint64_t sequence, int result) {
    ++calls;
    const Failure failure = Explain(result, options.client.server);
    if (options.json) {
        PutJson({{"seq", sequence}, {"size", options.size}, {"error", failure.text}});
        return;
    }
    Put(fmt::format("seq={} lost: {}\n", sequence, failure.text));
}

int PingReport::Finish() const {
    const uint64_t lost = calls - times.Count();
    const double loss = calls == 0 ? 0 : 100.0 * static_cast<double>(lost) / static_cast<double>(calls);
    if (options.json) {
        PrintJson(loss);
    } else {
        PrintText(loss);
    }
    return times.Count() > 0 ? EXIT_DONE : EXIT_NO_ANSWER;
}

void PingReport::PrintJson(double loss) const {
    const auto microseconds = [](double nanoseconds) { return nanoseconds / 1e3; };
    nlohmann::json summary = {{"server", options.client.server},
                              {"calls", calls},
                              {"answers", times.Count()},
                              {"lost", calls - times.Count()},
                              {"loss_percent", loss}};
    if (options.outstanding > 1) {
        summary["outstanding"] = options.outstanding;
    }
    if (times.Count() > 0) {
        summary["min_us"] = microseconds(static_cast<double>(times.Min()));
        summary["mean_us"] = microseconds(times.Mean());
        summary["p50_us"] = microseconds(static_cast<double>(times.Percentile(50)));
        summary["p99_us"] = microseconds(static_cast<double>(times.Percentile(99)));
        summary["max_us"] = microseconds(static_cast<double>(times.Max()));
    }
    PutJson({{"summary", summary}});
}

void PingReport::PrintText(double loss) const {
    const std::chrono::nanoseconds total = Clock::now() - start;
    Put(fmt::format("\n--- {} ping statistics ---\n{} calls, {} answers, {} lost ({:.4g}%), time {}\n",
                    options.client.server, calls, times.Count(), calls - times.Count(), loss,
                    DurationText(static_cast<double>(total.count()))));
    if (times.Count() > 0) {
        Put(fmt::format(
            "min/mean/p50/p99/max = {} / {} / {} / {} / {}\n", DurationText(static_cast<double>(times.Min())),
            DurationText(times.Mean()), DurationText(static_cast<double>(times.Percentile(50))),
            DurationText(static_cast<double>(times.Percentile(99))), DurationText(static_cast<double>(times.Max()))));
    }
}

} // namespace tarvoctl
