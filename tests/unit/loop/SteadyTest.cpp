// What a message costs once everything is warm: system calls and memory.
#include <cerrno>

#include "LoopKit.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

// A server and a client with a loop each, on one thread.
class SteadyTest : public LoopTest {
protected:
    SteadyTest() : name(UniqueName("srv")) {
        EXPECT_EQ(TarvoLoopCreate(&near), 0);
        TarvoLinkCallbacks callbacks{};
        callbacks.size = sizeof(callbacks);
        callbacks.request = [](void *, TarvoLink *on, uint32_t number, TarvoBytes payload) {
            TarvoLinkReply(on, number, payload);
        };
        TarvoServiceOptions options{};
        options.size = sizeof(options);
        options.name = name.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.callbacks = &callbacks;
        TarvoService *service = nullptr;
        EXPECT_EQ(TarvoServiceOpen(loop, &options, &service), 0);
        link = OpenLink(near, client, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
        while (!client.opened) {
            TarvoLoopDispatch(loop, 100);
            TarvoLoopDispatch(near, 100);
        }
        // The server's side of the link opens, and the timers of that are past.
        EXPECT_EQ(TarvoLoopRun(loop, 60), -ETIMEDOUT);
        MakeCall();
    }
    ~SteadyTest() override { TarvoLoopDestroy(near); }

    static void Done(void *context, int result, TarvoBytes) { *static_cast<int *>(context) += result == 0 ? 1 : 100; }

    void MakeCall() {
        int ended = 0;
        ASSERT_GT(TarvoLinkCall(link, {text, sizeof(text)}, PATIENCE_MS, Done, &ended), 0);
        ASSERT_EQ(TarvoLoopDispatch(loop, 100), 1);
        ASSERT_EQ(TarvoLoopDispatch(near, 100), 1);
        ASSERT_EQ(ended, 1);
    }

    const std::string name;
    TarvoLoop *near = nullptr;
    Recorder client;
    TarvoLink *link = nullptr;
    const char text[64] = {'x'};
};

TEST_F(SteadyTest, ACallTakesSixSystemCallsOnBothEndsTogether) {
    constexpr unsigned CALLS = 100;
    const CallCounter writes(Call::Write);
    const CallCounter reads(Call::Read);
    const CallCounter waits(Call::EpollWait);
    const CallCounter controls(Call::EpollCtl);
    for (unsigned i = 0; i < CALLS; ++i) {
        MakeCall();
    }
    EXPECT_EQ(writes.Count(), 2 * CALLS);
    EXPECT_EQ(reads.Count(), 2 * CALLS);
    EXPECT_EQ(waits.Count(), 2 * CALLS);
    EXPECT_EQ(controls.Count(), 0U);
}

TEST_F(SteadyTest, ACallTakesNoMemory) {
    const std::size_t before = ThreadAllocations();
    for (int i = 0; i < 1000; ++i) {
        MakeCall();
    }
    EXPECT_EQ(ThreadAllocations(), before);
}

TEST_F(SteadyTest, TheSmallFramesOfARoundGoInOneWrite) {
    constexpr int CALLS = 20;
    int ended = 0;
    TarvoLinkHold(link);
    const CallCounter writes(Call::Write);
    for (int i = 0; i < CALLS; ++i) {
        ASSERT_GT(TarvoLinkCall(link, {text, sizeof(text)}, PATIENCE_MS, Done, &ended), 0);
    }
    EXPECT_EQ(writes.Count(), 0U);
    EXPECT_EQ(TarvoLinkFlush(link), 0);
    EXPECT_EQ(writes.Count(), 1U);
    EXPECT_EQ(TarvoLoopDispatch(loop, 100), CALLS);
    EXPECT_EQ(writes.Count(), 2U);
    EXPECT_EQ(TarvoLoopDispatch(near, 100), CALLS);
    EXPECT_EQ(ended, CALLS);
}

} // namespace
} // namespace tarvo_test
