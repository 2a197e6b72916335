#ifndef TARVO_LOOP_STATSFIXTURE_H
#define TARVO_LOOP_STATSFIXTURE_H

#include <gtest/gtest.h>

#include <cerrno>
#include <numeric>
#include <string>
#include <vector>

#include "loop/LoopFixture.h"
#include "stats/StatsFile.h"
#include "support/StatsDirectory.h"

namespace tarvo_test {

// Before anything of the loop: a directory in which this process is counted, whose file is open before leaks are
// looked for.
struct CountedProcess {
    const bool mayMount = EnterMountNamespace();
    const bool isCounted = mayMount && GetOwnStatsDirectory() && StatsFile::Get() != nullptr;
};

inline uint64_t Times(const TarvoStatsTimes &times) {
    return std::accumulate(times.buckets, times.buckets + TARVO_STATS_BUCKETS, uint64_t{0});
}

inline uint64_t Ends(const TarvoStatsPipe &pipe) {
    return std::accumulate(pipe.calls.ended, pipe.calls.ended + TARVO_STATS_ENDS, uint64_t{0});
}

inline uint64_t Dropped(const TarvoStatsPipe &pipe) {
    return std::accumulate(pipe.requests.dropped, pipe.requests.dropped + TARVO_STATS_DROP_REASONS, uint64_t{0});
}

inline uint64_t Requests(const uint64_t *messages) {
    return messages[TARVO_STATS_ONE_WAY] + messages[TARVO_STATS_CALL];
}

inline uint64_t Messages(const uint64_t *messages) { return Requests(messages) + messages[TARVO_STATS_RESPONSE]; }

inline TarvoStatsPipe NumbersOf(const TarvoLink *link) {
    TarvoStatsPipe numbers{};
    EXPECT_EQ(TarvoLinkStats(link, &numbers), 0);
    return numbers;
}

// The slots of the pipes in the file of this process.
inline std::vector<TarvoStatsSlot> PipesOnFile() { return OwnStats().Slots(TARVO_STATS_PIPE); }

// A link by arrangement whose remote is written by hand, in a process that is counted.
class LinkStatsTest : private CountedProcess, public LoopTest {
protected:
    void SetUp() override {
        if (!mayMount) {
            GTEST_SKIP() << NO_MOUNTS;
        }
        ASSERT_TRUE(isCounted);
        OpenLink(TARVO_LINK_ARRANGED_CLIENT);
    }

    TarvoStatsPipe Numbers() const { return NumbersOf(link.link); }
    // After the round: what the file says, which lacks nothing then but the levels.
    static TarvoStatsPipe OnFile() {
        const std::vector<TarvoStatsSlot> pipes = PipesOnFile();
        EXPECT_EQ(pipes.size(), 1U);
        return pipes.empty() ? TarvoStatsPipe{} : pipes.front().of.pipe;
    }
    // Sends until there is no room; how many were taken.
    uint64_t FillUp() {
        uint64_t taken = 0;
        while (link.Send(std::string(4000, 'x')) == 0) {
            ++taken;
        }
        return taken;
    }
};

} // namespace tarvo_test

#endif // TARVO_LOOP_STATSFIXTURE_H
