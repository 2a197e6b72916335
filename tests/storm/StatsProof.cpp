#include "storm/StatsProof.h"

#include <fmt/format.h>

#include <string>

#include "support/StatsSums.h"

namespace storm {

namespace {

constexpr uint64_t HEAD = 32;
// What the threads of one killed process may have in the middle, of each kind.
constexpr uint64_t IN_HAND = 16;

struct Files {
    tarvo_test::StatsSums sums;
    uint64_t ended = 0; // processes that ended in the orderly way
    uint64_t killed = 0;
    unsigned faults = 0;
};

void Report(const std::string &fault, unsigned &faults) {
    fmt::print("FAILED: {}\n", fault);
    ++faults;
}

Files ReadFiles() {
    Files files;
    for (const std::string &path : tarvo_test::StatsFiles()) {
        const tarvo_test::StatsSnapshot file(path);
        ++(tarvo_test::EndedInOrder(file) ? files.ended : files.killed);
        files.sums.Add(file);
        for (const std::string &fault : tarvo_test::DisagreementsIn(path, IN_HAND)) {
            Report(fault, files.faults);
        }
        if (tarvo_test::IsAliveStatsFile(path)) {
            Report(path + ": nobody lives any more, but its lock is held", files.faults);
        }
        if (file.IsWhole() && file.Header().uncounted != 0) {
            Report(path + ": not all pipes were counted", files.faults);
        }
    }
    return files;
}

} // namespace

bool BeginStats() {
    if (tarvo_test::GetOwnStatsDirectory()) {
        return true;
    }
    fmt::print("Skipped: cannot mount a directory of its own, which takes root\n");
    return false;
}

bool JudgeStats(std::optional<uint64_t> answers) {
    Files files = ReadFiles();
    const tarvo_test::StatsSums &sums = files.sums;
    const uint64_t inHand = files.killed * IN_HAND;
    tarvo_test::StatsComparison compare("all processes");
    // What no process is left to count: what lay in the FIFOs of those killed.
    const uint64_t lost = files.killed == 0 ? 0 : UINT64_MAX / 4;
    compare.Expect("bytes written, and read or left", sums.sentBytes + HEAD * sums.sent + inHand * (HEAD + 4000),
                   sums.receivedBytes + HEAD * (sums.received) + sums.unread, inHand * 2 * (HEAD + 4000) + lost);
    if (answers) {
        compare.Expect("answered calls, and answers told of", sums.answered, *answers, inHand);
    }
    for (const std::string &fault : compare.Faults()) {
        Report(fault, files.faults);
    }
    fmt::print(
        "\n{} processes that ended counted, and {} that were killed: {} frames sent, {} received, {} bytes unread, "
        "{} calls, {} answered, {} requests begun, {} dropped\n",
        files.ended, files.killed, sums.sent, sums.received, sums.unread, sums.calls, sums.answered, sums.begun,
        sums.dropped);
    if (files.ended + files.killed == 0 || sums.answered == 0) {
        Report("nothing was counted", files.faults);
    }
    return files.faults == 0;
}

} // namespace storm
