// Pipes that are flushed in a turn and after it, by one thread and by two.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "local/RelayLink.h"
#include "support/Eventually.h"
#include "support/RawFrame.h"
#include "support/RawPeer.h"
#include "unit/loop/LoopKit.h"

using namespace tarvo_test;
using tarvo_bridge::FrameBytes;
using tarvo_bridge::LocalPipe;
using tarvo_bridge::PipeFlusher;
using tarvo_bridge::RelayLink;

namespace {

// Has the kernel interrupt this thread with `signal` before it returns from a write to a FIFO of which `reader` is the
// read end.
class WriteInterrupt {
public:
    WriteInterrupt(int reader, int signal, void (*handler)(int)) : fd(reader), number(signal) {
        struct sigaction action {};
        action.sa_handler = handler;
        EXPECT_EQ(sigaction(number, &action, &before), 0);
        const f_owner_ex owner{F_OWNER_TID, static_cast<pid_t>(syscall(SYS_gettid))};
        EXPECT_EQ(fcntl(fd, F_SETOWN_EX, &owner), 0);
        EXPECT_EQ(fcntl(fd, F_SETSIG, number), 0);
        EXPECT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK | O_ASYNC), 0);
    }
    ~WriteInterrupt() {
        EXPECT_EQ(fcntl(fd, F_SETFL, O_NONBLOCK), 0);
        EXPECT_EQ(sigaction(number, &before, nullptr), 0);
    }
    WriteInterrupt(const WriteInterrupt &) = delete;
    WriteInterrupt &operator=(const WriteInterrupt &) = delete;

private:
    const int fd;
    const int number;
    struct sigaction before {};
};

struct Ears final : LocalPipe::Listener {
    void OnPipeOpen() override { opened = true; }
    void OnPipeFailed(int result) override { ADD_FAILURE() << "the pipe has not opened: " << result; }
    void OnPipeFrame(const FrameBytes &) override {}
    void OnPipeWritable() override { ++writable; }
    void OnPipeGone() override {}

    bool opened = false;
    int writable = 0;
};

class PipeFlusherTest : public LoopTest {
protected:
    PipeFlusherTest() : self(UniqueName("srv")), client(UniqueName("cli")) {
        pipe = RelayLink::Open(*loop, flusher, {self, client, false, getgid(), getpid(), PATIENCE_MS}, ears);
        peer = std::make_unique<JoinedRawPeer>(client, self);
        EXPECT_TRUE(Wait([this] { return ears.opened; }));
    }
    // With the pipe, before what flushes it.
    ~PipeFlusherTest() override {
        Close();
        Drain(loop);
    }

    void Close() {
        if (pipe != nullptr) {
            pipe->Close();
            pipe = nullptr;
        }
    }

    bool Write(uint32_t id, std::size_t size = 4) { return pipe->Write({id, 0, -1, std::string(size, 'x')}); }

    bool FlushAfterTurn() {
        std::unique_lock<std::mutex> lock(turn);
        const bool all = flusher.FlushAfter(lock);
        EXPECT_FALSE(lock.owns_lock());
        return all;
    }

    // Frames after turns, until one finds no room: how many there are.
    uint32_t Fill() {
        uint32_t count = 0;
        do {
            EXPECT_TRUE(Write(count++, 4000));
        } while (FlushAfterTurn());
        return count;
    }

    // The next frames are these.
    void Expect(uint32_t from, uint32_t to) {
        for (uint32_t id = from; id < to; ++id) {
            ASSERT_EQ(peer->Receive().id, id);
        }
    }

    const std::string self;
    const std::string client;
    Ears ears;
    PipeFlusher flusher;
    std::mutex turn;
    RelayLink *pipe = nullptr;
    std::unique_ptr<RawPeer> peer;
};

volatile std::sig_atomic_t interrupts = 0;
volatile std::sig_atomic_t interruptsInTurn = 0;
const std::unique_lock<std::mutex> *interruptedTurn = nullptr;

TEST_F(PipeFlusherTest, TurnIsOverBeforeWhoReadsIsWoken) {
    Write(1);
    Write(2);
    std::unique_lock<std::mutex> lock(turn);
    interruptedTurn = &lock;
    interrupts = interruptsInTurn = 0;
    {
        const WriteInterrupt interrupt(peer->ReadDescriptor(), SIGUSR2, [](int) {
            interrupts = interrupts + 1;
            interruptsInTurn = interruptsInTurn + (interruptedTurn->owns_lock() ? 1 : 0);
        });
        EXPECT_TRUE(flusher.FlushAfter(lock));
    }
    EXPECT_EQ(interrupts, 1) << "both frames in one write";
    EXPECT_EQ(interruptsInTurn, 0);
    Expect(1, 3);
    EXPECT_FALSE(peer->HasInput());
}

TEST_F(PipeFlusherTest, FrameWithoutRoomAfterATurnGoesOutInTheNext) {
    const uint32_t count = Fill();
    Expect(0, count - 1);
    EXPECT_FALSE(peer->HasInput());
    flusher.FlushAll();
    Expect(count - 1, count);
    flusher.FlushAll();
    EXPECT_FALSE(peer->HasInput());
}

TEST_F(PipeFlusherTest, FrameWithoutRoomAfterATurnGoesOutAfterTheNext) {
    const uint32_t count = Fill();
    EXPECT_FALSE(FlushAfterTurn());
    Expect(0, count - 1);
    EXPECT_TRUE(Write(count));
    EXPECT_TRUE(FlushAfterTurn());
    Expect(count - 1, count + 1);
    EXPECT_FALSE(peer->HasInput());
}

TEST_F(PipeFlusherTest, PipeThatHasNoRoomInATurnEitherTellsWhenItHas) {
    const uint32_t count = Fill();
    flusher.FlushAll();
    EXPECT_FALSE(Write(count, 4000)) << "of two of them only one waits";
    EXPECT_EQ(ears.writable, 0);
    // The loop writes what waits now.
    EXPECT_TRUE(FlushAfterTurn());
    Expect(0, count - 1);
    EXPECT_TRUE(Wait([this] { return ears.writable == 1; }));
    Expect(count - 1, count);
    EXPECT_TRUE(Write(count, 4000));
    EXPECT_TRUE(FlushAfterTurn());
    Expect(count, count + 1);
}

TEST_F(PipeFlusherTest, PipeThatIsClosedWithoutRoomIsForgotten) {
    const uint32_t count = Fill();
    Close();
    Drain(loop);
    flusher.FlushAll();
    EXPECT_TRUE(FlushAfterTurn());
    Expect(0, count - 1);
    peer->AwaitHangup();
}

TEST_F(PipeFlusherTest, FramesWithoutAReaderAreDropped) {
    peer->CloseRead();
    Write(1);
    EXPECT_TRUE(FlushAfterTurn());
    Write(2);
    EXPECT_TRUE(FlushAfterTurn());
}

TEST_F(PipeFlusherTest, FramesOfTwoThreadsComeInTheOrderOfTheirTurns) {
    constexpr uint32_t FRAMES = 4000;
    uint32_t next = 0; // in a turn
    std::thread other([&] {
        for (bool more = true; more;) {
            std::unique_lock<std::mutex> lock(turn);
            more = next < FRAMES;
            if (more && Write(next)) {
                ++next;
            }
            flusher.FlushAfter(lock);
        }
    });
    std::thread reader([&] { Expect(0, FRAMES); });
    for (bool more = true; more;) {
        const std::lock_guard<std::mutex> lock(turn);
        TarvoLoopDispatch(loop, INT_MAX);
        more = next < FRAMES;
        if (more && Write(next)) {
            ++next;
        }
        flusher.FlushAll();
    }
    other.join();
    // What had no room at the end.
    for (bool more = true; more;) {
        const std::lock_guard<std::mutex> lock(turn);
        TarvoLoopDispatch(loop, INT_MAX);
        flusher.FlushAll();
        more = !pipe->Flush();
    }
    reader.join();
    EXPECT_FALSE(peer->HasInput());
}

TEST_F(PipeFlusherTest, PipesCloseWhileOthersAreFlushedAfterATurn) {
    constexpr int ROUNDS = 300;
    bool ended = false; // in a turn
    std::thread other([&] {
        for (bool more = true; more;) {
            std::unique_lock<std::mutex> lock(turn);
            more = !ended;
            if (pipe != nullptr) {
                Write(7);
            }
            flusher.FlushAfter(lock);
        }
    });
    for (int i = 0; i < ROUNDS && !HasFailure(); ++i) {
        {
            const std::lock_guard<std::mutex> lock(turn);
            Close();
            TarvoLoopDispatch(loop, INT_MAX);
        }
        peer->AwaitHangup();
        peer.reset();
        ears.opened = false;
        RelayLink *made = nullptr;
        {
            const std::lock_guard<std::mutex> lock(turn);
            made = RelayLink::Open(*loop, flusher, {self, client, false, getgid(), getpid(), PATIENCE_MS}, ears);
        }
        peer = std::make_unique<JoinedRawPeer>(client, self);
        const auto isOpen = [&] {
            const std::lock_guard<std::mutex> lock(turn);
            return TarvoLoopDispatch(loop, INT_MAX) >= 0 && ears.opened;
        };
        EXPECT_TRUE(Eventually(isOpen));
        const std::lock_guard<std::mutex> lock(turn);
        pipe = made;
    }
    {
        const std::lock_guard<std::mutex> lock(turn);
        ended = true;
    }
    other.join();
}

} // namespace
