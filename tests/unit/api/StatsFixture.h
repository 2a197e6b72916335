// What the tests share of what the exported functions count.
#ifndef TARVO_TESTS_API_STATSFIXTURE_H
#define TARVO_TESTS_API_STATSFIXTURE_H

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "support/Eventually.h"
#include "support/Names.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"
#include "support/StatsDirectory.h"
#include "support/StatsSums.h"
#include "support/SyslogCapture.h"
#include "tarvo.h"
#include "tarvo_stats.h"

namespace tarvo_test {

inline void Ignore(int /*fd*/, TarvoRequest * /*request*/) {}

// Holds callbacks until it is opened. Lives as long as the process, since callbacks may end after the test.
class Gate {
public:
    static Gate &Make() {
        static auto &all = *new std::deque<Gate>; // where a search for leaks sees them
        return all.emplace_back();
    }
    void Pass() {
        std::unique_lock<std::mutex> lock(mutex);
        ++waiting;
        changed.notify_all();
        changed.wait(lock, [this] { return open; });
    }
    void Open() {
        const std::lock_guard<std::mutex> lock(mutex);
        open = true;
        changed.notify_all();
    }
    void AwaitWaiting(int count) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this, count] { return waiting >= count; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    int waiting = 0;
    bool open = false;
};

inline uint64_t CountOf(const TarvoStatsTimes &times) { return SumOf(times.buckets); }

// All tests of it count, each in a process of its own.
class ApiStatsTest : public ::testing::Test {
protected:
    void SetUp() override { TARVO_STATS_OR_SKIP(); }
    ~ApiStatsTest() override { TarvoCfgFinishServer(); }

    static TarvoStatsPipe Of(int fd) {
        TarvoStatsPipe stats{};
        EXPECT_EQ(0, TarvoPipeStats(fd, &stats));
        return stats;
    }
    // What the file says of a pipe, also when it has gone.
    static TarvoStatsSlot InFile(int fd) {
        for (const TarvoStatsSlot &slot : OwnStats().Slots(TARVO_STATS_PIPE)) {
            if (slot.handle == fd) {
                return slot;
            }
        }
        ADD_FAILURE() << "no slot of pipe " << fd;
        return {};
    }
    template <typename Condition>
    static bool EventuallyOf(int fd, Condition condition) {
        return Eventually([&] { return condition(Of(fd)); });
    }
    static bool EventuallyReceives(int fd, unsigned kind, uint64_t messages) {
        return EventuallyOf(fd, [=](const TarvoStatsPipe &stats) { return stats.received.messages[kind] == messages; });
    }

    // Sends one-way requests, and waits while the FIFO has no room. How often it had none.
    static uint64_t SendMany(int fd, int count, std::string text = "12345") {
        TarvoRequest request{0, text.data(), static_cast<uint32_t>(text.size())};
        uint64_t refused = 0;
        for (int sent = 0; sent < count;) {
            const int ret = TarvoSendRequest(fd, &request);
            if (ret == -EAGAIN) {
                ++refused;
                sched_yield();
                continue;
            }
            EXPECT_EQ(0, ret);
            ++sent;
        }
        return refused;
    }

    // A pipe that created its files, whose other end is played by hand.
    int OpenToRaw(Callback callback = {}, bool concurrent = false) {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, std::move(callback));
        attr.isConcur = concurrent;
        return TarvoOpen(&attr);
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    SyslogCapture log;
};

} // namespace tarvo_test

#endif // TARVO_TESTS_API_STATSFIXTURE_H
