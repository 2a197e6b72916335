// Callbacks on their way to the pool: when they come too late, and when the program's own objects, which are copied and
// destroyed on that way, call in again.
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "TableFixture.h"
#include "support/Asleep.h"
#include "support/Eventually.h"
#include "support/Faults.h"
#include "support/Threads.h"
#include "worker/TarvoTask.h"

namespace tarvo_test {
namespace {

constexpr char TOO_LATE[] = "Using thread pool after destroy.";

// A callable as a program may write it, with a say in being copied and in being destroyed. What a hook does takes part
// in the test only while the hook is armed, and only once.
struct Hook {
    std::function<void()> action;
    std::atomic<bool> armed{false};
    std::atomic<int> ran{0};

    void Run() {
        if (armed.exchange(false)) {
            action();
            ++ran;
        }
    }
};

class UserObject {
public:
    UserObject(Hook *whenCopied, Hook *whenDestroyed) : copied(whenCopied), destroyed(whenDestroyed) {}
    UserObject(const UserObject &other) : copied(other.copied), destroyed(other.destroyed) {
        if (copied != nullptr) {
            copied->Run();
        }
    }
    UserObject &operator=(const UserObject &) = delete;
    ~UserObject() {
        if (destroyed != nullptr) {
            destroyed->Run();
        }
    }

    void operator()() const {}

private:
    Hook *const copied;
    Hook *const destroyed;
};

void Nothing() {}

class SubmissionTest : public TableTest {
protected:
    // As OpenNew, and asks for a worker that goes on opening.
    int OpenInBackground() {
        const std::string remote = UniqueName("remote");
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        attr.timeout = PIPE_OPEN_TIMEOUT_MS;
        return Open(attr);
    }
};

TEST_F(SubmissionTest, ConcurrentCallbackThatComesTooLateIsReportedByThePool) {
    table->DisableTarvoTable();
    EXPECT_EQ(table->OnAsyncRequestIn(Nothing, TARVO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(table->OnAsyncRequestIn(Nothing, TARVO_PRIORITY_URGENT), -EACCES);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, TOO_LATE), 2U);
    EXPECT_EQ(table->OnAsyncRequestIn({}, TARVO_PRIORITY_NORMAL), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input parameter invalid"), 1U);
}

TEST_F(SubmissionTest, ConcurrentTaskThatComesTooLateIsReportedByThePool) {
    table->DisableTarvoTable();
    const auto task = std::make_shared<const SyncTask>(Nothing);
    EXPECT_EQ(table->OnAsyncTaskIn(task, TARVO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(table->OnAsyncTaskIn(task, TARVO_PRIORITY_URGENT), -EACCES);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, TOO_LATE), 2U);
    EXPECT_EQ(task.use_count(), 1);
}

TEST_F(SubmissionTest, SerialCallbackThatComesTooLateIsReportedByThePoolAndWaitsForNothing) {
    table->DisableTarvoTable();
    EXPECT_EQ(table->OnRequestIn("7", Nothing, TARVO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(table->OnTaskIn("7", std::make_shared<const SyncTask>(Nothing), TARVO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, TOO_LATE), 2U);
    EXPECT_EQ(log.Lines().size(), 2U);
    EXPECT_EQ(workers->WorkerOf("7"), nullptr);
}

TEST_F(SubmissionTest, BackgroundOpenThatComesTooLateIsReportedByThePool) {
    table->DisableTarvoTable();
    EXPECT_GT(OpenInBackground(), 0);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, TOO_LATE), 1U);
}

// What the program's own copy constructor waits for may be the end of the table, or a pipe that it opens itself.
TEST_F(SubmissionTest, TableCanBeDisabledWhileACallbackIsBeingCopied) {
    Hook copied{[&] {
        InBackground([&] { table->DisableTarvoTable(); }).get();
        OpenInBackground();
    }};
    const std::function<void()> task = UserObject(&copied, nullptr);
    copied.armed = true;
    EXPECT_EQ(table->OnAsyncRequestIn(task, TARVO_PRIORITY_NORMAL), -EACCES);
    EXPECT_EQ(copied.ran, 1);
    EXPECT_TRUE(table->GetIsDisable());
}

TEST_F(SubmissionTest, TableCanBeDisabledWhileARefusedCallbackIsBeingDestroyed) {
    Hook destroyed{[&] { InBackground([&] { table->DisableTarvoTable(); }).get(); }};
    const std::function<void()> task = UserObject(nullptr, &destroyed);
    destroyed.armed = true;
    EXPECT_EQ(table->OnAsyncRequestIn(task, TARVO_PRIORITY_NONE), -EINVAL);
    EXPECT_EQ(destroyed.ran, 1); // the copy that the pool has made, while `task` lives
    EXPECT_TRUE(table->GetIsDisable());
}

// A submitter waits for the only worker, and the end for the submitter; the worker's callback, which alone can bring
// both on, submits something itself.
TEST_F(SubmissionTest, CallbackThatSubmitsDuringTheEndHoldsNobodyUp) {
    const auto few = std::make_shared<CallbackPool>(std::make_shared<WorkerPool>(1, 0));
    TarvoTable small(few);
    std::promise<void> occupied;
    std::promise<void> waitedFor;
    std::atomic<int> late{0};
    ASSERT_EQ(small.OnAsyncRequestIn(
                  [&] {
                      occupied.set_value();
                      waitedFor.get_future().get();
                      late = small.OnAsyncRequestIn(Nothing, TARVO_PRIORITY_NORMAL);
                  },
                  TARVO_PRIORITY_NORMAL),
              0);
    occupied.get_future().get();
    const auto begin = [](std::promise<pid_t> &id, auto body) {
        return InBackground([&id, body] {
            id.set_value(gettid());
            return body();
        });
    };
    const auto rests = [](std::promise<pid_t> &id) {
        const std::string task = "/proc/self/task/" + std::to_string(id.get_future().get());
        return Eventually([&task] { return IsAsleep(task); });
    };
    const CallCounter waits(Call::SemWait);
    std::promise<pid_t> submitterId;
    auto submitter = begin(submitterId, [&small] { return small.OnAsyncRequestIn(Nothing, TARVO_PRIORITY_NORMAL); });
    ASSERT_TRUE(waits.WaitFor(1) && rests(submitterId));
    std::promise<pid_t> disablerId;
    auto disabler = begin(disablerId, [&small] { small.DisableTarvoTable(); });
    EXPECT_TRUE(Eventually([&few] { return few->RefusesTasks(); }) && rests(disablerId));
    EXPECT_FALSE(small.GetIsDisable());
    waitedFor.set_value();
    EXPECT_EQ(submitter.get(), 0);
    disabler.get();
    EXPECT_EQ(late, -EACCES);
}

// A worker that is busy, and behind its callback one that will be dropped.
class DroppedCallbackTest : public TableTest {
protected:
    void TearDown() override { table.reset(); } // waits for the busy one

    void QueueBehindBusyWorker(const std::string &name) {
        ASSERT_EQ(table->OnRequestIn(
                      name,
                      [this] {
                          entered.set_value();
                          leave.get_future().get();
                      },
                      TARVO_PRIORITY_NORMAL),
                  0);
        entered.get_future().get();
        ASSERT_EQ(table->OnRequestIn(name, UserObject(nullptr, &destroyed), TARVO_PRIORITY_NORMAL), 0);
        destroyed.armed = true;
    }

    std::promise<void> entered;
    std::promise<void> leave;
    Hook destroyed;
};

TEST_F(DroppedCallbackTest, ThatGoesWithItsPipeMayCloseAnotherPipe) {
    const int fd = OpenNew();
    const int other = OpenNew();
    destroyed.action = [&] { table->CloseTarvoPipe(other); };
    QueueBehindBusyWorker(std::to_string(fd));
    table->CloseTarvoPipe(fd);
    EXPECT_EQ(destroyed.ran, 1);
    EXPECT_EQ(table->Size(), 0U);
    leave.set_value();
}

TEST_F(DroppedCallbackTest, ThatGoesWithTheTableMayAskForItsEndItself) {
    destroyed.action = [&] {
        table->DisableTarvoTable();
        leave.set_value();
    };
    QueueBehindBusyWorker("7");
    table->DisableTarvoTable();
    EXPECT_EQ(destroyed.ran, 1);
    EXPECT_TRUE(table->GetIsDisable());
}

} // namespace
} // namespace tarvo_test
