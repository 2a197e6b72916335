#include "support/Faults.h"

#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <future>
#include <thread>

#include "api/EnvManager.h"
#include "diag/run_time_record.h"
#include "diag/velm_syslog.h"
#include "support/Names.h"
#include "support/SyslogCapture.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

std::string ScratchPath() { return FifoDirectory() + UniqueName("scratch"); }

TEST(Faults, NothingFailsUnlessArmed) {
    const std::string path = ScratchPath();
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    EXPECT_EQ(unlink(path.c_str()), 0);
}

TEST(Faults, FailsExactlyTheChosenCalls) {
    const ScopedFault fault(Call::Access, EACCES, Where().Nth(2).Times(2));
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(access("/", F_OK), -1);
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(fault.Hits(), 2U);
}

TEST(Faults, EndsWithItsScope) {
    {
        const ScopedFault fault(Call::Access, EACCES, Where().Always());
        EXPECT_EQ(access("/", F_OK), -1);
        EXPECT_EQ(access("/", F_OK), -1);
    }
    EXPECT_EQ(access("/", F_OK), 0);
}

TEST(Faults, FailsTheCallsOfTheLibrary) {
    // The library is a shared object of its own: its calls must come here too.
    const ScopedFault fault(Call::Setenv, ENOMEM);
    MutexLock lock(EnvManager::Instance());
    EXPECT_EQ(EnvManager::SetEnv("TARVO_TEST_VARIABLE", "x"), -ENOMEM);
    EXPECT_EQ(fault.Hits(), 1U);
    EXPECT_EQ(EnvManager::SetEnv("TARVO_TEST_VARIABLE", "x"), 0);
    EXPECT_STREQ(getenv("TARVO_TEST_VARIABLE"), "x");
}

TEST(Faults, CountsTheCallsOfTheLibrary) {
    const CallCounter counter(Call::ClockGettime, Where().Number(CLOCK_MONOTONIC));
    Tarvo::GetCurrentTime();
    Tarvo::GetCurrentTime();
    EXPECT_EQ(counter.Count(), 2U);
}

TEST(Faults, FailsTheCallsOfTheStandardLibrary) {
    const ScopedFault fault(Call::PthreadCreate, EAGAIN);
    EXPECT_THROW(std::thread([] {}), std::system_error);
    std::thread([] {}).join();
}

TEST(Faults, KeepToTheirPath) {
    const ScopedFault fault(Call::Access, EACCES, Where().Always().Path("/proc"));
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(access("/proc/self", F_OK), -1);
    const ScopedFault other(Call::Access, ELOOP, Where().Always().PathHas("shm"));
    EXPECT_EQ(access("/dev/shm", F_OK), -1);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(access("/dev", F_OK), 0);
}

TEST(Faults, KeepToTheirDescriptor) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const ScopedFault fault(Call::Write, EIO, Where().Always().Fd(ends[1]));
    EXPECT_EQ(write(ends[1], "x", 1), -1);
    EXPECT_EQ(errno, EIO);
    const int other = dup(ends[1]);
    EXPECT_EQ(write(other, "x", 1), 1);
    close(other);
    close(ends[0]);
    close(ends[1]);
}

TEST(Faults, KeepToTheirThread) {
    const ScopedFault fault(Call::Access, EACCES, Where().Always().ThisThread());
    int elsewhere = -1;
    std::thread([&] { elsewhere = access("/", F_OK); }).join();
    EXPECT_EQ(elsewhere, 0);
    EXPECT_EQ(access("/", F_OK), -1);
}

TEST(Faults, KeepToTheirProcess) {
    const ScopedFault fault(Call::Access, EACCES, Where().Always());
    const pid_t child = fork();
    if (child == 0) {
        _exit(access("/", F_OK) == 0 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST(Faults, KeepToTheirCondition) {
    const ScopedFault fault(Call::Open, ENFILE,
                            Where().If([](const CallInfo &info) { return (info.number & O_NONBLOCK) != 0; }));
    const int blocking = open("/dev/null", O_RDONLY);
    EXPECT_GE(blocking, 0);
    EXPECT_EQ(open("/dev/null", O_RDONLY | O_NONBLOCK), -1);
    EXPECT_EQ(errno, ENFILE);
    close(blocking);
}

TEST(Hooks, RunBeforeTheCallAndSeeItsArguments) {
    const std::string from = ScratchPath();
    const std::string to = ScratchPath();
    ASSERT_EQ(mkfifo(from.c_str(), 0600), 0);
    const ScopedHook hook(Call::Link, [&](const CallInfo &info) {
        EXPECT_EQ(info.path, from);
        EXPECT_EQ(info.path2, to);
        // A competitor comes first.
        EXPECT_EQ(mkfifo(info.path2, 0600), 0);
    });
    EXPECT_EQ(link(from.c_str(), to.c_str()), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(hook.Hits(), 1U);
    unlink(from.c_str());
    unlink(to.c_str());
}

TEST(Hooks, MayTakeTheCallsPlace) {
    const ScopedHook hook(
        Call::Write,
        [](const CallInfo &info) -> std::optional<Outcome> {
            return Outcome{static_cast<long>(info.size) / 2, 0};
        },
        Where());
    EXPECT_EQ(write(-1, "abcd", 4), 2);
    EXPECT_EQ(write(-1, "abcd", 4), -1);
}

TEST(Hooks, MayBlockWhileOtherThreadsGoOn) {
    std::promise<void> release;
    const ScopedHook hook(
        Call::Access, [&](const CallInfo &) { release.get_future().wait(); }, Where());
    CallCounter counter(Call::Access);
    std::thread held([] { EXPECT_EQ(access("/", F_OK), 0); });
    ASSERT_TRUE(counter.WaitFor(1));
    EXPECT_EQ(access("/proc", F_OK), 0);
    release.set_value();
    held.join();
    EXPECT_EQ(counter.Count(), 2U);
}

TEST(Hooks, CallsOfHooksMeetNoRules) {
    const ScopedFault fault(Call::Access, EACCES, Where().Always());
    int inHook = -1;
    const ScopedHook hook(Call::Unlink, [&](const CallInfo &) { inHook = access("/", F_OK); });
    unlink("/nowhere");
    EXPECT_EQ(inHook, 0);
}

TEST(Hooks, KeepErrnoOfTheCall) {
    const ScopedHook hook(Call::Access, [](const CallInfo &) { errno = EDOM; });
    errno = EBADMSG;
    EXPECT_EQ(access("/", F_OK), 0);
    EXPECT_EQ(errno, EBADMSG);
}

// One row for each function: armed, it fails in its own way.
TEST(Faults, EveryFunctionFailsInItsOwnWay) {
    char buffer[4096];
    struct stat status {};
    epoll_event event{};
    sched_param parameters{};
    timespec now{};
    tm date{};
    sem_t semaphore;
    ASSERT_EQ(sem_init(&semaphore, 0, 1), 0);
    const auto fails = [](Call call, auto function) {
        const ScopedFault fault(call, ENOTBLK);
        errno = 0;
        const auto result = function();
        return fault.Hits() == 1 && result == static_cast<decltype(result)>(-1) && errno == ENOTBLK;
    };
    EXPECT_TRUE(fails(Call::Mkfifo, [] { return mkfifo("/nowhere/x", 0600); }));
    EXPECT_TRUE(fails(Call::Open, [] { return open("/", O_RDONLY); }));
    EXPECT_TRUE(fails(Call::Read, [&] { return read(-1, buffer, 1); }));
    EXPECT_TRUE(fails(Call::Write, [&] { return write(-1, "x", 1); }));
    EXPECT_TRUE(fails(Call::Close, [] { return close(-1); }));
    EXPECT_TRUE(fails(Call::Unlink, [] { return unlink("/nowhere/x"); }));
    EXPECT_TRUE(fails(Call::Link, [] { return link("/nowhere/x", "/nowhere/y"); }));
    EXPECT_TRUE(fails(Call::Chmod, [] { return chmod("/nowhere/x", 0600); }));
    EXPECT_TRUE(fails(Call::Chown, [] { return chown("/nowhere/x", 0, 0); }));
    EXPECT_TRUE(fails(Call::Lstat, [&] { return lstat("/", &status); }));
    EXPECT_TRUE(fails(Call::Access, [] { return access("/", F_OK); }));
    EXPECT_TRUE(fails(Call::Flock, [] { return flock(-1, LOCK_EX); }));
    EXPECT_TRUE(fails(Call::EpollCreate, [] { return epoll_create(1); }));
    EXPECT_TRUE(fails(Call::EpollCreate, [] { return epoll_create1(0); }));
    EXPECT_TRUE(fails(Call::EpollCtl, [&] { return epoll_ctl(-1, EPOLL_CTL_ADD, 0, &event); }));
    EXPECT_TRUE(fails(Call::EpollWait, [&] { return epoll_wait(-1, &event, 1, 0); }));
    EXPECT_TRUE(fails(Call::Poll, [] { return poll(nullptr, 0, 0); }));
    EXPECT_TRUE(fails(Call::Eventfd, [] { return eventfd(0, 0); }));
    EXPECT_TRUE(fails(Call::Prctl, [] { return prctl(PR_GET_DUMPABLE, 0UL, 0UL, 0UL, 0UL); }));
    EXPECT_TRUE(fails(Call::SemWait, [&] { return sem_wait(&semaphore); }));
    EXPECT_TRUE(fails(Call::SemPost, [&] { return sem_post(&semaphore); }));
    EXPECT_TRUE(fails(Call::SemTimedwait, [&] { return sem_timedwait(&semaphore, &now); }));
    EXPECT_TRUE(fails(Call::ClockGettime, [&] { return clock_gettime(CLOCK_MONOTONIC, &now); }));
    EXPECT_TRUE(fails(Call::Setenv, [] { return setenv("TARVO_TEST_VARIABLE", "", 1); }));
    EXPECT_TRUE(fails(Call::Unsetenv, [] { return unsetenv("TARVO_TEST_VARIABLE"); }));
    EXPECT_TRUE(fails(Call::Sleep, [&] { return nanosleep(&now, nullptr); }));

    const auto fault = [](Call call) { return ScopedFault(call, ENOTBLK); };
    {
        const auto armed = fault(Call::Realpath);
        EXPECT_EQ(realpath("/", buffer), nullptr);
        EXPECT_EQ(errno, ENOTBLK);
    }
    {
        const auto armed = fault(Call::Strftime);
        EXPECT_EQ(strftime(buffer, sizeof(buffer), "%T", &date), 0U);
    }
    {
        const auto armed = fault(Call::PthreadSetschedparam);
        EXPECT_EQ(pthread_setschedparam(pthread_self(), SCHED_OTHER, &parameters), ENOTBLK);
    }
    {
        const auto armed = fault(Call::PthreadSetcancelstate);
        EXPECT_EQ(pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr), ENOTBLK);
    }
    sem_destroy(&semaphore);
}

TEST(Faults, UnarmedFunctionsAreTheRealOnes) {
    char buffer[4096];
    // The newest realpath allocates when asked to; the oldest one refuses.
    char *root = realpath("/proc/..", nullptr);
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(root, "/");
    free(root);
    tm date{};
    EXPECT_EQ(strftime(buffer, sizeof(buffer), "%T", &date), 8U);
    const int epoll = epoll_create(1);
    const int event = eventfd(1, EFD_NONBLOCK);
    ASSERT_GE(epoll, 0);
    ASSERT_GE(event, 0);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.u64 = 77;
    EXPECT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, event, &wanted), 0);
    epoll_event got{};
    EXPECT_EQ(epoll_wait(epoll, &got, 1, 0), 1);
    const uint64_t data = got.data.u64; // a packed structure: no reference to its place
    EXPECT_EQ(data, 77U);
    EXPECT_EQ(flock(epoll, LOCK_UN), 0);
    close(event);
    close(epoll);
    char name[16] = "";
    EXPECT_EQ(prctl(PR_SET_NAME, reinterpret_cast<unsigned long>("tarvo_name"), 0UL, 0UL, 0UL), 0);
    EXPECT_EQ(prctl(PR_GET_NAME, reinterpret_cast<unsigned long>(name), 0UL, 0UL, 0UL), 0);
    EXPECT_STREQ(name, "tarvo_name");
    const std::string path = ScratchPath();
    const int file = open(path.c_str(), O_CREAT | O_RDWR, 0640);
    ASSERT_GE(file, 0);
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0737, 0600U);
    close(file);
    unlink(path.c_str());
}

TEST(Faults, ManyThreadsMayArmAndCall) {
    std::atomic<unsigned> failures{0};
    OnThreads(4, [&](int) {
        for (int round = 0; round < 200; ++round) {
            const ScopedFault fault(Call::Access, EACCES, Where().ThisThread());
            failures += access("/", F_OK) == -1 ? 1 : 0;
            failures += access("/", F_OK) == -1 ? 1 : 0;
        }
    });
    EXPECT_EQ(failures, 800U);
}

} // namespace
} // namespace tarvo_test
