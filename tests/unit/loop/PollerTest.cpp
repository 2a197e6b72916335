#include "loop/Poller.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "base/UniqueFd.h"

namespace {

constexpr uint32_t FIRST = 1;
constexpr uint32_t SECOND = 2;

// A pipe with a byte in it.
class FullPipe {
public:
    FullPipe() {
        std::array<int, 2> ends{-1, -1};
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
        readEnd = UniqueFd(ends[0]);
        writeEnd = UniqueFd(ends[1]);
        EXPECT_EQ(write(writeEnd.Get(), "x", 1), 1);
    }
    int ReadFd() const { return readEnd.Get(); }

private:
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

class PollerTest : public testing::Test, private Watcher {
protected:
    PollerTest() { EXPECT_EQ(poller.Init(), 0); }

    void Add(const FullPipe &pipe, uint32_t what, Watch &watch) {
        ASSERT_EQ(poller.Add(pipe.ReadFd(), EPOLLIN, *this, what, watch), 0);
    }

    Poller poller;
    Poller::Ready ready;
    std::vector<uint32_t> told;

private:
    void OnEvents(uint32_t what, uint32_t events) override {
        EXPECT_EQ(events, static_cast<uint32_t>(EPOLLIN));
        told.push_back(what);
    }
};

TEST_F(PollerTest, TellsWhatAWaitHasFound) {
    const FullPipe pipe;
    Watch watch;
    poller.Wait(ready, 0);
    EXPECT_EQ(ready.count, 0);
    Add(pipe, FIRST, watch);
    EXPECT_EQ(poller.Tell(ready), 0);
    EXPECT_EQ(told, std::vector<uint32_t>());
    poller.Wait(ready, -1);
    EXPECT_EQ(poller.Tell(ready), 0);
    EXPECT_EQ(told, std::vector<uint32_t>{FIRST});
}

TEST_F(PollerTest, WhoHasLeftAfterTheWaitIsNotTold) {
    const FullPipe one;
    const FullPipe other;
    Watch first;
    Watch second;
    Add(one, FIRST, first);
    Add(other, SECOND, second);
    poller.Wait(ready, -1);
    ASSERT_EQ(ready.count, 2);
    poller.Remove(first);
    EXPECT_EQ(poller.Tell(ready), 0);
    EXPECT_EQ(told, std::vector<uint32_t>{SECOND});
}

TEST_F(PollerTest, WhoHasTakenAPlaceAfterTheWaitIsNotToldOfTheOneBefore) {
    const FullPipe one;
    const FullPipe other;
    Watch watch;
    Add(one, FIRST, watch);
    const uint32_t place = watch.place;
    poller.Wait(ready, -1);
    poller.Remove(watch);
    Add(other, SECOND, watch);
    ASSERT_EQ(watch.place, place);
    EXPECT_EQ(poller.Tell(ready), 0);
    EXPECT_EQ(told, std::vector<uint32_t>());
}

} // namespace
