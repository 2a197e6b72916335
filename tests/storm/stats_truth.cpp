// Whether the numbers that processes have left agree, each process's with themselves and all together: to be run when
// the processes of a storm have ended, in the directory that they were counted in. Processes may have been killed, so
// that of each pipe that was not closed one message may be under way in each step.
#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "tarvo_stats.h"

namespace {

uint64_t Requests(const uint64_t *messages) { return messages[TARVO_STATS_ONE_WAY] + messages[TARVO_STATS_CALL]; }

template <std::size_t Count>
uint64_t Sum(const uint64_t (&numbers)[Count]) {
    return std::accumulate(numbers, numbers + Count, uint64_t{0});
}

struct Verdict {
    // `less` is no more than `more`, and at most `apart` less.
    void Within(const std::string &what, uint64_t less, uint64_t more, uint64_t apart) {
        if (less > more + apart || more > less + apart) {
            Fail(fmt::format("{}: {} and {}", what, less, more));
        }
    }
    void AtMost(const std::string &what, uint64_t less, uint64_t more, uint64_t apart) {
        if (less > more + apart) {
            Fail(fmt::format("{}: {} are more than {}", what, less, more));
        }
    }
    void Fail(const std::string &text) {
        fmt::print("{}\n", text);
        good = false;
    }

    bool good = true;
    uint64_t files = 0;
    uint64_t alive = 0;
    uint64_t killed = 0; // pipes that were not closed
    TarvoStatsPipe all{};
};

void Add(TarvoStatsPipe &sum, const TarvoStatsPipe &more) {
    for (std::size_t kind = 0; kind < TARVO_STATS_KINDS; ++kind) {
        sum.sent.messages[kind] += more.sent.messages[kind];
        sum.received.messages[kind] += more.received.messages[kind];
        sum.sent.bytes[kind] += more.sent.bytes[kind];
        sum.received.bytes[kind] += more.received.bytes[kind];
    }
    sum.sent.lost += more.sent.lost;
    sum.calls.begun += more.calls.begun;
    sum.calls.ended[TARVO_STATS_END_ANSWERED] += more.calls.ended[TARVO_STATS_END_ANSWERED];
}

void Judge(const std::string &name, const TarvoStatsSlot &slot, Verdict &verdict) {
    const TarvoStatsPipe &pipe = slot.of.pipe;
    const bool isClosed = slot.kind == TARVO_STATS_GONE || slot.state == TARVO_STATS_CLOSED;
    const uint64_t apart = isClosed ? 0 : 1;
    verdict.killed += apart;
    const std::string what = fmt::format("{} {}=>{} ", name, slot.name, slot.remote);
    verdict.Within(what + "calls begun, and ended or outstanding", Sum(pipe.calls.ended) + pipe.calls.outstanding.now,
                   pipe.calls.begun, apart);
    if (isClosed) {
        verdict.Within(what + "calls outstanding at the end", pipe.calls.outstanding.now, 0, 0);
        verdict.Within(what + "requests waiting at the end", pipe.requests.queued.now, 0, 0);
        verdict.Within(what + "callbacks running at the end", pipe.requests.running.now, 0, 0);
    }
    verdict.Within(what + "requests received, and begun, dropped or queued",
                   pipe.requests.begun + Sum(pipe.requests.dropped) + pipe.requests.queued.now,
                   Requests(pipe.received.messages), apart);
    verdict.Within(what + "responses, and calls answered or late",
                   pipe.calls.ended[TARVO_STATS_END_ANSWERED] + pipe.received.late,
                   pipe.received.messages[TARVO_STATS_RESPONSE], apart + pipe.calls.ended[TARVO_STATS_END_OTHER]);
    verdict.AtMost(what + "lost of those sent", pipe.sent.lost, Sum(pipe.sent.messages), apart);
    Add(verdict.all, pipe);
}

int Read(void *context, int directory, const char *name) {
    auto &verdict = *static_cast<Verdict *>(context);
    TarvoStatsFile *file = nullptr;
    TarvoStatsReading reading{};
    const int opened = TarvoStatsOpenAt(directory, name, &file);
    const int result = opened == 0 ? TarvoStatsRead(file, &reading) : opened;
    if (result < 0) {
        verdict.Fail(fmt::format("{} cannot be read: {}", name, result));
    }
    ++verdict.files;
    verdict.alive += reading.alive;
    for (uint32_t index = 0; index < reading.slots; ++index) {
        const TarvoStatsSlot &slot = reading.slot[index];
        if (slot.kind == TARVO_STATS_PIPE || slot.kind == TARVO_STATS_GONE) {
            Judge(name, slot, verdict);
        }
    }
    TarvoStatsFree(&reading);
    TarvoStatsClose(file);
    return 0;
}

void JudgeAll(Verdict &verdict) {
    const auto &all = verdict.all;
    // What a process had sent that has been killed may be more than it came to count.
    verdict.AtMost("messages received and lost of those sent", Sum(all.received.messages) + all.sent.lost,
                   Sum(all.sent.messages), verdict.killed);
    verdict.AtMost("requests received of those sent", Requests(all.received.messages), Requests(all.sent.messages),
                   verdict.killed);
    verdict.AtMost("responses received of those sent", all.received.messages[TARVO_STATS_RESPONSE],
                   all.sent.messages[TARVO_STATS_RESPONSE], verdict.killed);
    fmt::print("{:<40}{:>12}\n{:<40}{:>12}\n{:<40}{:>12}\n{:<40}{:>12}\n{:<40}{:>12}\n{:<40}{:>12}\n", "files",
               verdict.files, "pipes of killed processes", verdict.killed, "requests sent", Requests(all.sent.messages),
               "requests received", Requests(all.received.messages), "calls", all.calls.begun, "answered",
               all.calls.ended[TARVO_STATS_END_ANSWERED]);
    if (verdict.files == 0 || all.calls.begun == 0) {
        verdict.Fail("nothing was counted");
    }
    if (verdict.alive != 0) {
        verdict.Fail("processes still live");
    }
}

} // namespace

int main() {
    Verdict verdict;
    const int result = TarvoStatsEach(TARVO_STATS_DIRECTORY, Read, &verdict);
    if (result != 0) {
        fmt::print("{} cannot be listed: {}\n", TARVO_STATS_DIRECTORY, result);
        return EXIT_FAILURE;
    }
    JudgeAll(verdict);
    fmt::print("{}\n", verdict.good ? "the numbers agree" : "the numbers do NOT agree");
    return verdict.good ? EXIT_SUCCESS : EXIT_FAILURE;
}
