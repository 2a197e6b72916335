// The reader-writer lock that every message takes: who waits for whom, and that nobody is forgotten.
#include "base/SharedMutex.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/Asleep.h"
#include "support/Eventually.h"
#include "support/Reach.h"
#include "support/Threads.h"

namespace tarvo_test {

// The count of readers, which tells that a writer has come.
struct Users {
    using Type = std::atomic<int32_t> SharedMutex::*;
    friend Type Get(Users);
};
template struct Reach<Users, &SharedMutex::users>;

namespace {

class SharedMutexTest : public testing::Test {
protected:
    // A thread that has the lock as `Lock` until it is told to let go.
    template <typename Lock>
    class Holder {
    public:
        explicit Holder(SharedMutex &mutex)
            : thread([this, &mutex] {
                  id.set_value(gettid());
                  const Lock lock(mutex);
                  holds.set_value();
                  released.get_future().wait();
              }) {}
        ~Holder() { End(); }
        Holder(const Holder &) = delete;
        Holder &operator=(const Holder &) = delete;

        void AwaitHeld() { held.wait(); }
        // Whether it has been kept out: it sleeps, and not because it has the lock.
        bool Waits() {
            const std::string task = "/proc/self/task/" + std::to_string(threadId.get());
            return Eventually([&task] { return IsAsleep(task); }) && !Holds();
        }
        bool Holds() { return held.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
        void Release() {
            if (!letGo.exchange(true)) {
                released.set_value();
            }
        }
        void End() {
            Release();
            if (thread.joinable()) {
                thread.join();
            }
        }

    private:
        std::promise<pid_t> id;
        std::shared_future<pid_t> threadId = id.get_future();
        std::promise<void> holds;
        std::future<void> held = holds.get_future();
        std::promise<void> released;
        std::atomic<bool> letGo{false};
        std::thread thread;
    };
    using Reader = Holder<ReadLock>;
    using Writer = Holder<WriteLock>;

    // Until a writer waits, or has the lock.
    void AwaitWriter() {
        ASSERT_TRUE(Eventually([this] { return (mutex.*Get(Users())).load() < 0; }));
    }

    SharedMutex mutex;
};

TEST_F(SharedMutexTest, ReadersShareIt) {
    Reader first(mutex);
    first.AwaitHeld();
    Reader second(mutex);
    second.AwaitHeld();
}

TEST_F(SharedMutexTest, WriterWaitsForEveryReader) {
    Reader first(mutex);
    Reader second(mutex);
    first.AwaitHeld();
    second.AwaitHeld();
    Writer writer(mutex);
    EXPECT_TRUE(writer.Waits());
    first.End();
    EXPECT_TRUE(writer.Waits());
    second.Release();
    writer.AwaitHeld();
}

TEST_F(SharedMutexTest, ReaderThatComesToAWaitingWriterComesAfterIt) {
    Reader early(mutex);
    early.AwaitHeld();
    Writer writer(mutex);
    AwaitWriter();
    Reader late(mutex);
    EXPECT_TRUE(late.Waits());
    EXPECT_TRUE(writer.Waits());
    early.Release();
    writer.AwaitHeld();
    EXPECT_FALSE(late.Holds());
    writer.Release();
    late.AwaitHeld();
}

TEST_F(SharedMutexTest, WritersExcludeEachOther) {
    Writer first(mutex);
    first.AwaitHeld();
    Writer second(mutex);
    EXPECT_TRUE(second.Waits());
    first.Release();
    second.AwaitHeld();
}

TEST_F(SharedMutexTest, WriterIsCancelledOnlyOnceItHasTheLock) {
    Reader reader(mutex);
    reader.AwaitHeld();
    bool held = false;
    std::thread writer([&] {
        const WriteLock lock(mutex);
        held = true;
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    });
    AwaitWriter();
    EXPECT_EQ(pthread_cancel(writer.native_handle()), 0);
    reader.Release();
    writer.join();
    EXPECT_TRUE(held);
    Writer next(mutex);
    next.AwaitHeld();
}

TEST_F(SharedMutexTest, ReadersSeeWhatWritersLeaveWhole) {
    constexpr int WRITERS = 2;
    constexpr int READERS = 3;
    constexpr int ROUNDS = 2000;
    int64_t first = 0;
    int64_t second = 0;
    std::atomic<bool> whole{true};
    Threads writers(WRITERS, [&](int) {
        for (int round = 0; round < ROUNDS; ++round) {
            const WriteLock lock(mutex);
            ++first;
            ++second;
        }
    });
    OnThreads(READERS, [&](int) {
        for (int round = 0; round < ROUNDS; ++round) {
            const ReadLock lock(mutex);
            whole = whole && first == second;
        }
    });
    writers.Join();
    EXPECT_TRUE(whole);
    EXPECT_EQ(first, WRITERS * ROUNDS);
    EXPECT_EQ(second, WRITERS * ROUNDS);
}

} // namespace
} // namespace tarvo_test
