#include "worker/tarvo_thread.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <system_error>

#include "WorkerTestKit.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"
#include "support/Unprivileged.h"

using namespace tarvo_test;
using namespace worker_test;

namespace {

// A thread that runs until it is released.
class Sleeper {
public:
    void Routine() {
        scheduling = OwnScheduling();
        handle = pthread_self();
        started.Open();
        released.Wait();
    }
    void Probe() { scheduling = OwnScheduling(); }

    Gate started;
    Gate released;
    Scheduling scheduling;
    pthread_t handle{};
};

class TarvoThreadTest : public LeakCheckedTest {
protected:
    void Start() {
        thread.Create(&Sleeper::Routine, &sleeper);
        sleeper.started.Wait();
    }
    void TearDown() override {
        sleeper.released.Open();
        if (thread.Joinable()) {
            thread.Join();
        }
    }
    // The policy of the sleeper, as the kernel has it.
    Scheduling SleepersScheduling() {
        Scheduling found;
        sched_param param{};
        pthread_getschedparam(sleeper.handle, &found.policy, &param);
        found.priority = param.sched_priority;
        return found;
    }

    Sleeper sleeper;
    TarvoThread thread;
};

TEST_F(TarvoThreadTest, ThreadIsJoinableFromCreateToJoin) {
    EXPECT_FALSE(thread.Joinable());
    Start();
    EXPECT_TRUE(thread.Joinable());
    sleeper.released.Open();
    thread.Join();
    EXPECT_FALSE(thread.Joinable());
}

TEST_F(TarvoThreadTest, AnEndedThreadStaysJoinableUntilJoined) {
    const std::size_t before = ThreadCount();
    thread.Create(&Sleeper::Probe, &sleeper);
    EXPECT_TRUE(Eventually([&] { return ThreadCount() == before; }));
    EXPECT_TRUE(thread.Joinable());
    thread.Join();
    EXPECT_FALSE(thread.Joinable());
}

TEST_F(TarvoThreadTest, ARefusedThreadIsReportedToTheCaller) {
    const ScopedFault refused(Call::PthreadCreate, EAGAIN);
    EXPECT_THROW(thread.Create(&Sleeper::Routine, &sleeper), std::system_error);
    EXPECT_EQ(refused.Hits(), 1U);
    EXPECT_FALSE(thread.Joinable());
}

TEST_F(TarvoThreadTest, JoiningNothingIsReportedToTheCaller) { EXPECT_THROW(thread.Join(), std::system_error); }

TEST_F(TarvoThreadTest, NormalOnANewThreadCostsNoSystemCall) {
    const CallCounter calls(Call::PthreadSetschedparam);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    Start();
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(calls.Count(), 0U);
}

TEST_F(TarvoThreadTest, EachPriorityMapsToItsPolicyOnce) {
    Start();
    std::vector<std::pair<int, int>> asked;
    const ScopedHook allow(Call::PthreadSetschedparam, [&](const CallInfo &info) -> std::optional<Outcome> {
        asked.emplace_back(info.number, static_cast<const sched_param *>(info.data)->sched_priority);
        return Outcome{0, 0};
    });
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_THAT(asked, testing::ElementsAre(std::pair(SCHED_FIFO, 50), std::pair(SCHED_OTHER, 0)));
}

TEST_F(TarvoThreadTest, UrgentRunsUnderFifo50AndNormalUnderOther) {
    TARVO_SKIP_WITHOUT_REALTIME();
    Start();
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(SleepersScheduling().policy, SCHED_FIFO);
    EXPECT_EQ(SleepersScheduling().priority, 50);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(SleepersScheduling().policy, SCHED_OTHER);
    EXPECT_EQ(SleepersScheduling().priority, 0);
}

TEST_F(TarvoThreadTest, AThreadStartedByARealTimeThreadIsNormal) {
    TARVO_SKIP_WITHOUT_REALTIME();
    std::thread([&] {
        sched_param param{};
        param.sched_priority = 60;
        ASSERT_EQ(pthread_setschedparam(pthread_self(), SCHED_FIFO, &param), 0);
        Start();
    }).join();
    EXPECT_EQ(SleepersScheduling().policy, SCHED_OTHER);
    const CallCounter calls(Call::PthreadSetschedparam);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0);
    EXPECT_EQ(calls.Count(), 0U);
}

TEST_F(TarvoThreadTest, ANewThreadIsNormalWhateverTheLastOneWas) {
    Start();
    const CallCounter calls(Call::PthreadSetschedparam);
    {
        const ScopedHook allow(Call::PthreadSetschedparam, [](const CallInfo &) {
            return std::optional(Outcome{0, 0});
        });
        EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
        sleeper.released.Open();
        thread.Join();
        thread.Create(&Sleeper::Probe, &sleeper);
        EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
    }
    EXPECT_EQ(calls.Count(), 2U);
}

TEST_F(TarvoThreadTest, ARefusalIsLoggedAndTriedAgainByTheNextCall) {
    Start();
    const SyslogCapture log;
    const std::string line = "Pthread_setschedparam failed for thread(" + std::to_string(sleeper.handle) +
                             "), setSchedParam 2 ret(" + std::to_string(EPERM) + ").";
    {
        const ScopedFault refused(Call::PthreadSetschedparam, EPERM, Where().Always());
        EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
        EXPECT_EQ(log.CountExactly(LOG_ERR, line), 1U);
        EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
        EXPECT_EQ(log.CountExactly(LOG_ERR, line), 2U);
        EXPECT_EQ(refused.Hits(), 2U);
    }
    const CallCounter calls(Call::PthreadSetschedparam);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NORMAL), 0); // still normal: the refused priority was not recorded
    EXPECT_EQ(calls.Count(), 0U);
    EXPECT_EQ(log.Lines().size(), 2U);
}

TEST_F(TarvoThreadTest, WithoutTheRightUrgentIsLoggedEachTimeAndTheThreadGoesOn) {
    TARVO_SKIP_UNLESS_ROOT();
    constexpr uid_t nobody = 65534;
    const int result = RunAs(nobody, nobody, [&] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_RTPRIO, &none);
        const SyslogCapture log;
        Start();
        EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
        EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
        EXPECT_EQ(log.Count(LOG_ERR, "Pthread_setschedparam failed for thread("), 2U);
        EXPECT_EQ(log.Count(LOG_ERR, "setSchedParam 2 ret(" + std::to_string(EPERM) + ")."), 2U);
        EXPECT_EQ(SleepersScheduling().policy, SCHED_OTHER);
        sleeper.released.Open();
        thread.Join();
        return 0;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(TarvoThreadTest, OtherPrioritiesAreRefused) {
    Start();
    const SyslogCapture log;
    const CallCounter calls(Call::PthreadSetschedparam);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_EQ(thread.SetRTType(static_cast<TarvoPriority>(3)), -EINVAL);
    EXPECT_EQ(thread.SetRTType(static_cast<TarvoPriority>(-1)), -EINVAL);
    EXPECT_THAT(log.Messages(),
                testing::ElementsAre("No such TarvoPriority, input is 0", "No such TarvoPriority, input is 3",
                                     "No such TarvoPriority, input is -1"));
    EXPECT_EQ(log.Count(LOG_ERR, "No such TarvoPriority"), 3U);
    EXPECT_EQ(calls.Count(), 0U);
}

TEST_F(TarvoThreadTest, WithoutAThreadThereIsNothingToSchedule) {
    const CallCounter calls(Call::PthreadSetschedparam);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_URGENT), 0);
    EXPECT_EQ(thread.SetRTType(TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_EQ(calls.Count(), 0U);
}

TEST(NuroCoreSetaffinityTest, LeavesTheThreadOnAllItsCores) {
    cpu_set_t before;
    cpu_set_t after;
    ASSERT_EQ(sched_getaffinity(0, sizeof(before), &before), 0);
    NuroCoreSetaffinity();
    ASSERT_EQ(sched_getaffinity(0, sizeof(after), &after), 0);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
}

} // namespace
