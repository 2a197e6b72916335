// A remote that ends before it has opened its write end. Its FIFO then never had a writer, and tells its reader
// nothing.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Names.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"
#include "support/Threads.h"
#include "tarvo.h"

namespace tarvo_test {
namespace {

class EarlyDeathTest : public testing::Test {
protected:
    int Open(Callback callback = {}) {
        remote.CreateFiles();
        TarvoAttr attr = MakeAttr(self, target, TARVO_MODE_CLIENT, std::move(callback));
        return fd = TarvoOpen(&attr);
    }

    ~EarlyDeathTest() override { TarvoClosePipe(fd); }

    Callback Told() {
        return [this](int, TarvoRequest *request) { told += request == nullptr ? 1 : 100; };
    }

    void ExpectToldOnceAndClosed() {
        TarvoRequest request{0, const_cast<char *>("x"), 1};
        EXPECT_TRUE(Eventually([&] { return TarvoSendRequest(fd, &request) == -ENOENT; }));
        EXPECT_EQ(told, 1);
    }

    std::atomic<int> told{0};
    int fd = 0;
    const std::string self = UniqueName("caller");
    const std::string target = UniqueName("mute");
    RawPeer remote{target, self};
};

TEST_F(EarlyDeathTest, CallerWithoutTimeOutIsTold) {
    Open();
    ASSERT_GT(fd, 0);
    // A caller who is not yet in its wait when the pipe closes gets 0 without an answer.
    const CallCounter waits(Call::SemWait, Where().ThisThread());
    std::thread end([&] {
        EXPECT_EQ(remote.Receive().payload, "anybody?");
        EXPECT_TRUE(waits.WaitFor(1));
        remote.CloseRead();
    });
    EXPECT_EQ(Ask(fd, "anybody?", -1), "error " + std::to_string(-EPIPE));
    end.join();
}

TEST_F(EarlyDeathTest, CallbackIsToldOnceAndThePipeCloses) {
    Open(Told());
    ASSERT_GT(fd, 0);
    remote.CloseRead();
    ExpectToldOnceAndClosed();
}

TEST_F(EarlyDeathTest, AnswerWrittenBeforeTheEndIsDelivered) {
    Open();
    ASSERT_GT(fd, 0);
    remote.OpenWrite();
    std::future<std::string> call = InBackground([this] { return Ask(fd, "last one", -1); });
    const RawFrame request = remote.Receive();
    remote.Send(RawResponse(request.id, "good-bye"));
    remote.CloseRead();
    remote.CloseWrite();
    EXPECT_EQ(call.get(), "good-bye");
}

TEST_F(EarlyDeathTest, CallbackIsToldOnceOfAnOrdinaryEnd) {
    Open(Told());
    ASSERT_GT(fd, 0);
    remote.OpenWrite();
    remote.CloseRead();
    remote.CloseWrite();
    ExpectToldOnceAndClosed();
}

} // namespace
} // namespace tarvo_test
