#include <dirent.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "system/Payload.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

bool MayRunInRealTime() {
    sched_param parameters = {};
    parameters.sched_priority = 50;
    if (sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        return false;
    }
    parameters.sched_priority = 0;
    return sched_setscheduler(0, SCHED_OTHER, &parameters) == 0;
}

// How many threads of that name the process has under the policy.
int ThreadsNamed(pid_t pid, const std::string &name, int policy) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    DIR *directory = opendir(tasks.c_str());
    int count = 0;
    while (const dirent *entry = directory == nullptr ? nullptr : readdir(directory)) {
        std::string comm;
        std::getline(std::ifstream(tasks + entry->d_name + "/comm"), comm);
        count += comm == name && sched_getscheduler(std::stoi(entry->d_name)) == policy ? 1 : 0;
    }
    closedir(directory);
    return count;
}

class CallbackTest : public SystemTest {
protected:
    // `receiver_` makes the files and runs callbacks with the given attributes; `sender_` sends.
    void Start(const std::string &receiverWords) {
        pair_ = OpenPair(receiver_, Name("r"), receiverWords, sender_, Name("s"), "callback=echo");
    }

    void Send(int count, int firstId = 0) {
        EXPECT_EQ(sender_.AskInt("send data=x times=" + std::to_string(count) + " id=" + std::to_string(firstId) +
                                 Fd(pair_.second)),
                  0);
    }

    // Returns once the receiver has read all that was sent to it: the answer of this call comes behind it.
    void AwaitAllRead() { ExpectEcho(receiver_, pair_.first, "mark"); }

    std::string Event(const std::string &what, int id) const {
        return what + " fd=" + std::to_string(pair_.first) + " id=" + std::to_string(id) + " " + Digest("x");
    }

    PeerProcess receiver_;
    PeerProcess sender_;
    Pair pair_ = {};
};

TEST_F(CallbackTest, SerialCallbacksRunOneAfterAnotherInOrder) {
    Start("callback=gate");
    Send(5);
    AwaitAllRead();
    for (int id = 0; id < 5; ++id) {
        EXPECT_EQ(receiver_.NextEvent(), Event("entered", id));
        EXPECT_EQ(receiver_.Pending("entered"), 0U) << "a second callback runs beside the first";
        receiver_.Ask("gate");
        EXPECT_EQ(receiver_.NextEvent(), Event("left", id));
    }
}

TEST_F(CallbackTest, BlockedSerialCallbackDelaysItsOwnPipeOnly) {
    Start("callback=gate");
    PeerProcess other;
    const Pair otherPair = OpenPair(receiver_, Name("r"), "callback=echo", other, Name("o"), "");
    Send(1);
    receiver_.Await("entered");
    EXPECT_EQ(other.Ask("call timeout=20000 text data=free" + Fd(otherPair.second)), "0 free");
    receiver_.Ask("gate");
    receiver_.Await("left");
}

TEST_F(CallbackTest, ConcurrentCallbacksRunAtTheSameTime) {
    Start("callback=gate concur=1");
    Send(20);
    for (int i = 0; i < 20; ++i) {
        receiver_.Await("entered");
    }
    EXPECT_EQ(receiver_.Pending("left"), 0U);
    receiver_.Ask("gate permits=20");
    for (int i = 0; i < 20; ++i) {
        receiver_.Await("left");
    }
}

TEST_F(CallbackTest, ConcurrentPipeDropsTheRequestBeyondTwoHundredCallbacks) {
    Start("callback=gate concur=1");
    Send(201);
    AwaitAllRead();
    for (int i = 0; i < 200; ++i) {
        receiver_.Await("entered");
    }
    receiver_.Ask("gate permits=200");
    for (int i = 0; i < 200; ++i) {
        receiver_.Await("left");
    }
    receiver_.Ask("gate");
    Send(1, 900);
    receiver_.Await(Event("left", 900));
    EXPECT_EQ(receiver_.Pending(Event("entered", 900)), 1U);
    EXPECT_EQ(receiver_.Pending("entered"), 1U) << "the request with id 200 was dropped";
}

TEST_F(CallbackTest, UrgentPipeReceivesAndCallsBackInRealTime) {
    if (!MayRunInRealTime()) {
        GTEST_SKIP() << "this process has no right to real-time scheduling";
    }
    Start("callback=policy priority=2");
    EXPECT_EQ(sender_.Ask("call text timeout=20000 data=x" + Fd(pair_.second)), "0 fifo:50");
    EXPECT_EQ(ThreadsNamed(receiver_.Pid(), "tarvo_monitor", SCHED_FIFO), 1);
    EXPECT_EQ(ThreadsNamed(sender_.Pid(), "tarvo_monitor", SCHED_FIFO), 0);
    EXPECT_EQ(ThreadsNamed(sender_.Pid(), "tarvo_monitor", SCHED_OTHER), 1);
}

TEST_F(CallbackTest, ConcurrentUrgentPipeCallsBackInRealTime) {
    if (!MayRunInRealTime()) {
        GTEST_SKIP() << "this process has no right to real-time scheduling";
    }
    Start("callback=policy priority=2 concur=1");
    EXPECT_EQ(sender_.Ask("call text timeout=20000 data=x" + Fd(pair_.second)), "0 fifo:50");
}

TEST_F(CallbackTest, NormalPipeReceivesAndCallsBackInTimeSharing) {
    Start("callback=policy priority=1");
    EXPECT_EQ(sender_.Ask("call text timeout=20000 data=x" + Fd(pair_.second)), "0 other:0");
    EXPECT_EQ(ThreadsNamed(receiver_.Pid(), "tarvo_monitor", SCHED_OTHER), 1);
}

TEST_F(CallbackTest, ServerOfUrgentPriorityServesInRealTime) {
    if (!MayRunInRealTime()) {
        GTEST_SKIP() << "this process has no right to real-time scheduling";
    }
    Serve(receiver_, Name("server"), "callback=policy priority=2");
    pair_ = Connect(receiver_, Name("server"), sender_, Name("client"), "");
    EXPECT_EQ(sender_.Ask("call text timeout=20000 data=x" + Fd(pair_.second)), "0 fifo:50");
    EXPECT_EQ(ThreadsNamed(receiver_.Pid(), "tarvo_server", SCHED_FIFO), 1);
}

TEST_F(CallbackTest, PriorityWithoutASchedulingClassOpensNothing) {
    EXPECT_EQ(receiver_.AskInt("open mode=1 timeout=10 priority=0 self=" + Name("r") + " target=" + Name("s")),
              -EINVAL);
    EXPECT_EQ(receiver_.AskInt("serve priority=0 self=" + Name("r")), -EINVAL);
}

TEST_F(CallbackTest, CallbackMayCloseItsOwnPipe) {
    Start("callback=closer");
    Send(1);
    receiver_.Await("closed");
    AwaitFilesGone(Name("r"), Name("s"));
    EXPECT_EQ(receiver_.AskInt("send data=x" + Fd(pair_.first)), -ENOENT);
}

} // namespace
} // namespace tarvo_test
