// Mixed traffic for minutes or days, now more and now less of it, while peers come and go, are stopped and killed: what
// the steady processes hold must not grow.
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "storm/CommandLine.h"
#include "storm/Percentile.h"
#include "storm/Proof.h"
#include "storm/SoakPeers.h"
#include "storm/StatsProof.h"
#include "storm/Usage.h"
#include "support/Names.h"
#include "support/Process.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

constexpr int64_t SECOND = 1000000000;
constexpr int END_LIMIT_MS = 30000;
constexpr std::size_t FEWEST_SAMPLES = 5;
// Below this, the allocator and the pool of workers are still warming up.
constexpr double MINUTES_FOR_GROWTH = 5;
// From little load to much and back, at most.
constexpr double WAVE_MINUTES = 4;
constexpr double LONGEST_PACE_US = 4000;
constexpr double SHORTEST_PACE_US = 250;

struct Options {
    double minutes = 20;
    unsigned rowSeconds = 60;
    std::string csv;
    bool stats = false;
};

struct Sample {
    double second = 0;
    long ownKiB = 0;
    long fileKiB = 0;
    long descriptors = 0;
    long threads = 0;
};

// What all of them together do and leave.
struct Whole {
    double second = 0;
    unsigned paceUs = 0;
    std::size_t files = 0;
    uint64_t calls = 0;
    uint64_t medianUs = 0;
    uint64_t p99Us = 0;
};

// A process that lives as long as the soak.
struct Steady {
    std::string role;
    std::unique_ptr<ChildProcess> process;
    std::vector<Sample> samples;
};

// Owns: all processes. Threads: one. Locks: none. Ends: kills what still runs.
class Soak {
public:
    explicit Soak(const Options &what) : options(what), tag(tarvo_test::NameTag()) {}

    bool Run() {
        StartSteady();
        start = Now();
        fmt::print("{:>6} {:>9} {:>6} {:>7} {:>10} {:>9} {:>8} {:>8} {:>9} {:>8} {:>7} {:>7} {:>7}\n", "minute",
                   "own KiB", "fds", "threads", "calls", "one-way", "p50 us", "p99 us", "max us", "visitors", "killed",
                   "stopped", "refused");
        const auto end = start + static_cast<int64_t>(options.minutes * 60 * SECOND);
        int64_t nextSample = start + SECOND;
        int64_t nextRow = start + options.rowSeconds * SECOND;
        last = board->latency.Read();
        lastSecond = last;
        // Longer when there are too few samples by then: under load the scheduler can hold this process up for seconds.
        while ((Now() < end || whole.size() < FEWEST_SAMPLES) && good) {
            ComeAndGo();
            if (Now() >= nextSample) {
                SetLoad();
                TakeSamples();
                nextSample = After(nextSample, SECOND);
            }
            if (Now() >= nextRow) {
                PrintRow();
                nextRow = After(nextRow, options.rowSeconds * SECOND);
            }
            poll(nullptr, 0, 20);
        }
        if (nextRow <= end + SECOND) {
            PrintRow(); // the last one
        }
        Finish();
        Judge();
        WriteCsv();
        return good;
    }

private:
    // When the next one is due. What this process was held up for is not made up for.
    static int64_t After(int64_t due, int64_t period) { return (due + period > Now() ? due : Now()) + period; }

    void StartSteady() {
        SoakBoard *shared = &*board;
        const std::string normal = tag + "normal";
        const std::string urgent = tag + "urgent";
        const std::string maker = tag + "maker";
        const std::string joiner = tag + "joiner";
        Add("server, normal priority", [=] { return SoakServer(*shared, normal, TARVO_PRIORITY_NORMAL); });
        Add("server, urgent priority", [=] { return SoakServer(*shared, urgent, TARVO_PRIORITY_URGENT); });
        Add("concurrent pipe, maker", [=] { return SoakConcurrentMaker(*shared, maker, joiner); });
        Add("concurrent pipe, 4 callers", [=] { return SoakConcurrentCaller(*shared, joiner, maker, 4); });
        Add("caller of normal", [=] { return SoakCaller(*shared, normal, tag + "c1"); });
        Add("caller of urgent", [=] { return SoakCaller(*shared, urgent, tag + "c2"); });
        Add("sender to normal", [=] { return SoakSender(*shared, normal, tag + "c3"); });
        Add("sender to urgent", [=] { return SoakSender(*shared, urgent, tag + "c4"); });
        Add("sender to a server that is stopped", [=] { return SoakSender(*shared, tag + "mortal", tag + "c6"); });
        Add("caller of a server that is killed", [=] { return SoakCaller(*shared, tag + "mortal", tag + "c5"); });
    }

    void Add(const std::string &role, const std::function<int()> &body) {
        steady.push_back({role, std::make_unique<ChildProcess>([body](Channel &) { return body(); }), {}});
    }

    // Grows and shrinks.
    void SetLoad() {
        const double minute = static_cast<double>(Now() - start) / (60.0 * SECOND);
        const double wave = std::min(WAVE_MINUTES, options.minutes / 4);
        const double phase = std::fmod(minute, wave) / wave;
        const double load = 1 - std::abs(2 * phase - 1);
        board->paceUs = static_cast<unsigned>(LONGEST_PACE_US * std::pow(SHORTEST_PACE_US / LONGEST_PACE_US, load));
    }

    // Every other time a process stands still for a moment before it is killed: its FIFO fills, its callers wait.
    bool StopFirst(const std::unique_ptr<ChildProcess> &process, bool &stopped, int64_t &killAt) {
        stopped = process != nullptr && !stopped && random() % 2 == 0 && kill(process->Pid(), SIGSTOP) == 0;
        if (stopped) {
            ++stops;
            killAt = Now() + static_cast<int64_t>(random() % 1500) * (SECOND / 1000);
        }
        return stopped;
    }

    // Visitors that end in the orderly way, visitors that are killed, and a server that is killed and started again.
    void ComeAndGo() {
        const int64_t now = Now();
        SoakBoard *shared = &*board;
        if (visitor != nullptr && visitor->EndsWithin(0)) {
            const int code = visitor->Wait();
            Check(code == 0, "a visitor ended with " + std::to_string(code));
            visitor.reset();
            ++visits;
        }
        if (visitor == nullptr) {
            const std::string server = tag + (visits % 2 == 0 ? "normal" : "urgent");
            visitor =
                std::make_unique<ChildProcess>([=](Channel &) { return SoakVisitor(*shared, server, tag + "v", 50); });
        }
        if (now >= killVictimAt && !StopFirst(victim, victimStopped, killVictimAt)) {
            kills += victim != nullptr ? 1 : 0;
            const std::string server = tag + (kills % 2 == 0 ? "normal" : "urgent");
            victim.reset();
            victim = std::make_unique<ChildProcess>(
                [=](Channel &) { return SoakVisitor(*shared, server, tag + "w", 1000000); });
            killVictimAt = now + static_cast<int64_t>(random() % 1000) * (SECOND / 1000);
        }
        if (now >= killServerAt && !StopFirst(mortal, mortalStopped, killServerAt)) {
            kills += mortal != nullptr ? 1 : 0;
            mortal.reset();
            mortal = std::make_unique<ChildProcess>(
                [=](Channel &) { return SoakServer(*shared, tag + "mortal", TARVO_PRIORITY_NORMAL); });
            killServerAt = now + static_cast<int64_t>(random() % 4000) * (SECOND / 1000);
        }
    }

    void TakeSamples() {
        const double second = static_cast<double>(Now() - start) / SECOND;
        for (Steady &one : steady) {
            if (one.process->EndsWithin(0)) {
                Check(false, one.role + " ended with " + std::to_string(one.process->Wait()));
                return;
            }
            const pid_t pid = one.process->Pid();
            const Resident memory = ResidentOf(pid);
            one.samples.push_back(
                {second, memory.ownKiB, memory.fileKiB, CountEntries(pid, "fd"), CountEntries(pid, "task")});
        }
        const Histogram::Counts now = board->latency.Read();
        const Histogram::Counts since = now.Since(lastSecond);
        lastSecond = now;
        whole.push_back({second, board->paceUs, tarvo_test::OwnFifoFiles().size(), since.Total(), since.Percentile(0.5),
                         since.Percentile(0.99)});
    }

    template <typename Field>
    long SumOfLast(Field field) const {
        long sum = 0;
        for (const Steady &one : steady) {
            sum += one.samples.empty() ? 0 : one.samples.back().*field;
        }
        return sum;
    }

    void PrintRow() {
        const Histogram::Counts now = board->latency.Read();
        const Histogram::Counts row = now.Since(last);
        last = now;
        const uint64_t sent = board->oneWay;
        fmt::print("{:>6.1f} {:>9} {:>6} {:>7} {:>10} {:>9} {:>8} {:>8} {:>9} {:>8} {:>7} {:>7} {:>7}\n",
                   static_cast<double>(Now() - start) / (60.0 * SECOND), SumOfLast(&Sample::ownKiB),
                   SumOfLast(&Sample::descriptors), SumOfLast(&Sample::threads), row.Total(), sent - lastSent,
                   row.Percentile(0.5), row.Percentile(0.99), row.Percentile(1.0), visits, kills, stops,
                   board->refused.load());
        std::fflush(stdout);
        Check(row.Total() > 0, "no call was answered in this row");
        lastSent = sent;
    }

    void Finish() {
        board->board.Set(Command::Finish);
        // Nobody waits for the answer of one that is stopped.
        victim.reset();
        mortal.reset();
        for (auto one = steady.rbegin(); one != steady.rend(); ++one) {
            Check(one->process->EndsWithin(END_LIMIT_MS), one->role + " does not end");
            const int code = one->process->Wait();
            Check(code == 0, one->role + " ended with " + std::to_string(code));
        }
        Check(board->wrong == 0, std::to_string(board->wrong) + " wrong answers");
    }

    // Compares the medians of the two halves of what follows the warm-up, which is the first fifth.
    template <typename Field>
    void JudgeField(const Steady &one, const char *what, Field field, double factor, double slack) {
        const std::size_t warm = one.samples.size() / 5;
        const std::size_t half = warm + (one.samples.size() - warm) / 2;
        std::vector<long> earlier;
        std::vector<long> later;
        for (std::size_t i = warm; i < one.samples.size(); ++i) {
            (i < half ? earlier : later).push_back(one.samples[i].*field);
        }
        const long before = Percentile(earlier, 0.5);
        const long after = Percentile(later, 0.5);
        const bool grown = static_cast<double>(after) > static_cast<double>(before) * factor + slack;
        const bool fine = !grown || options.minutes < MINUTES_FOR_GROWTH;
        fmt::print("{:<36} {:<12} {:>8} {:>8} {}\n", one.role, what, before, after, grown ? "GROWTH" : "");
        good = good && fine;
    }

    void Judge() {
        fmt::print("\n{:<36} {:<12} {:>8} {:>8}   (medians of the earlier and the later half)\n", "process", "",
                   "earlier", "later");
        if (options.minutes < MINUTES_FOR_GROWTH) {
            fmt::print("shorter than {} minutes: no verdict on growth\n", MINUTES_FOR_GROWTH);
        }
        for (const Steady &one : steady) {
            Check(one.samples.size() >= FEWEST_SAMPLES, one.role + " has too few samples for a verdict");
            // Memory: the allocator's own steps. Threads: one that serves a visitor may be counted or not.
            JudgeField(one, "own KiB", &Sample::ownKiB, 1.03, 128);
            JudgeField(one, "descriptors", &Sample::descriptors, 1, 2);
            JudgeField(one, "threads", &Sample::threads, 1, 2);
        }
    }

    void WriteCsv() const {
        if (options.csv.empty()) {
            return;
        }
        std::ofstream file(options.csv);
        file << "process,second,own_kib,file_kib,descriptors,threads\n";
        for (const Steady &one : steady) {
            for (const Sample &sample : one.samples) {
                file << '"' << one.role << "\"," << sample.second << ',' << sample.ownKiB << ',' << sample.fileKiB
                     << ',' << sample.descriptors << ',' << sample.threads << '\n';
            }
        }
        std::ofstream load(options.csv + ".load");
        load << "second,pace_us,files,calls,p50_us,p99_us\n";
        for (const Whole &one : whole) {
            load << one.second << ',' << one.paceUs << ',' << one.files << ',' << one.calls << ',' << one.medianUs
                 << ',' << one.p99Us << '\n';
        }
    }

    void Check(bool fine, const std::string &what) {
        if (!fine) {
            good = false;
            fmt::print("FAILED: {}\n", what);
        }
    }

    const Options options;
    const std::string tag;
    Shared<SoakBoard> board;
    std::vector<Steady> steady;
    std::vector<Whole> whole;
    std::unique_ptr<ChildProcess> visitor;
    std::unique_ptr<ChildProcess> victim;
    std::unique_ptr<ChildProcess> mortal;
    int64_t start = 0;
    int64_t killVictimAt = 0;
    int64_t killServerAt = 0;
    std::mt19937_64 random{std::random_device{}()};
    Histogram::Counts last;
    Histogram::Counts lastSecond;
    bool victimStopped = false;
    bool mortalStopped = false;
    uint64_t stops = 0;
    uint64_t lastSent = 0;
    uint64_t visits = 0;
    uint64_t kills = 0;
    bool good = true;
};

int Main(int argc, char **argv) {
    Options options;
    CommandLine line("Mixed traffic, more and less of it by turns, while peers come and go, are stopped and killed. "
                     "Fails when memory, descriptors or threads of the processes that "
                     "stay grow, or when anything goes wrong. The exit status is the verdict.");
    line.Option("--minutes", options.minutes, "how long");
    line.Option("--row-seconds", options.rowSeconds, "time between two rows of the table");
    line.Option("--csv", options.csv,
                "file for all samples of the processes; that with .load behind it gets those of the whole");
    line.Flag("--stats", options.stats, "the processes count, and their numbers must agree in the end; for root");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    if (options.stats && !BeginStats()) {
        return CANNOT_COUNT;
    }
    return Prove([&] {
        const bool good = Soak(options).Run();
        return (!options.stats || JudgeStats()) && good;
    });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
