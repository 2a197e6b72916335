#include "api/EnvManager.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/AllocFaults.h"
#include "support/Coverage.h"
#include "support/Faults.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace {

using tarvo_test::AllocFault;
using tarvo_test::Call;
using tarvo_test::CallCounter;
using tarvo_test::CallInfo;
using tarvo_test::Channel;
using tarvo_test::ChildProcess;
using tarvo_test::OnThreads;
using tarvo_test::Outcome;
using tarvo_test::ScopedFault;
using tarvo_test::ScopedHook;
using tarvo_test::Where;

constexpr char LIB[] = "/usr/lib64/libvelm.so.1";
constexpr std::size_t LONGEST_NAME = 100;
constexpr std::size_t LONGEST_PATH = 4096;

void ClearEnvironment() {
    for (const char *name : {"PROC_NAME", "VELM_STATUS", "LD_PRELOAD", "VELM_LIB_PATH", "KELDOR_RUN_MODE"}) {
        unsetenv(name);
    }
}

// The name is resolved once in a process and the environment belongs to all of it: each test needs a process of its
// own.
class EnvironmentTest : public testing::Test {
protected:
    EnvironmentTest() { ClearEnvironment(); }
};

using ProcName = EnvironmentTest;
using SetProcNameTest = EnvironmentTest;
using EnableDefaultProcNameTest = EnvironmentTest;
using SetEnvTest = EnvironmentTest;
using UpdateLdPreloadTest = EnvironmentTest;
using EnvInit = EnvironmentTest;

// For a test that needs several. `body` may use assertions.
template <typename Body>
void InFreshProcess(Body body) {
    const int code = ChildProcess([&](Channel &) {
                         ClearEnvironment();
                         body();
                         return 0;
                     }).Wait();
    EXPECT_EQ(code, 0);
}

void NameThisProcess(const char *comm) {
    ASSERT_EQ(prctl(PR_SET_NAME, reinterpret_cast<unsigned long>(comm), 0UL, 0UL, 0UL), 0);
}

int SetProcName(const std::string &name) {
    MutexLock lock(EnvManager::Instance());
    return EnvManager::SetProcName(name);
}

void EnableDefaultProcName() {
    MutexLock lock(EnvManager::Instance());
    EnvManager::EnableDefaultProcName();
}

int SetEnv(const std::string &key, const std::string &value) {
    MutexLock lock(EnvManager::Instance());
    return EnvManager::SetEnv(key, value);
}

int UpdateLdPreload() {
    MutexLock lock(EnvManager::Instance());
    return EnvManager::UpdateLdPreload();
}

// Whether another thread could take the environment mutex now.
bool EnvironmentIsFree() {
    bool free = false;
    std::thread([&free]() NO_THREAD_SAFETY_ANALYSIS {
        free = EnvManager::Instance().try_lock();
        if (free) {
            EnvManager::Instance().unlock();
        }
    }).join();
    return free;
}

// The text that the process's comm file seems to have.
class FakeComm {
public:
    explicit FakeComm(std::string content)
        : text(std::move(content)),
          hook(
              Call::Read, [this](const CallInfo &info) { return Read(info); }, Where().Always().If(IsComm)) {}

    unsigned Reads() const { return hook.Hits(); }

private:
    std::optional<Outcome> Read(const CallInfo &info) {
        const std::size_t size = std::min(info.size, text.size());
        std::memcpy(info.data, text.data(), size);
        text.erase(0, size);
        return Outcome{static_cast<long>(size)};
    }

    static bool IsComm(const CallInfo &info) {
        char target[256] = "";
        const std::string link = "/proc/self/fd/" + std::to_string(info.fd);
        return readlink(link.c_str(), target, sizeof(target) - 1) > 0 &&
               target == "/proc/" + std::to_string(getpid()) + "/comm";
    }

    std::string text;
    ScopedHook hook;
};

TEST(EnvManager, BuildIsForTheLocalHostAndItsDirectory) {
    EXPECT_EQ(EnvManager::HostName(), 1);
    EXPECT_FALSE(EnvManager::IsOrlaDomain());
    EXPECT_EQ(EnvManager::FifoPrefix(), "/dev/shm/velm/tarvo/");
    EXPECT_EQ(EnvManager::OrlaFifoDirPrefix(), "/local");
    EXPECT_EQ(EnvManager::GetLocalDomainName(), "dp:");
    EXPECT_EQ(&EnvManager::Instance(), &EnvManager::Instance());
}

TEST_F(ProcName, IsTheEnvironmentsIfItHasOne) {
    setenv("PROC_NAME", "from environment", 1);
    EXPECT_STREQ(EnvManager::ProcName(), "from environment");
}

TEST_F(ProcName, OfTheEnvironmentIsTakenAsItIs) {
    setenv("PROC_NAME", "process-manager", 1);
    EXPECT_STREQ(EnvManager::ProcName(), "process-manager");
}

TEST_F(ProcName, OfTheEnvironmentMayHave100Characters) {
    const std::string name(LONGEST_NAME, 'n');
    setenv("PROC_NAME", name.c_str(), 1);
    EXPECT_EQ(EnvManager::ProcName(), name);
}

TEST_F(ProcName, OfTheEnvironmentThatIsTooLongLeavesTheProcessNamelessForGood) {
    setenv("PROC_NAME", std::string(LONGEST_NAME + 1, 'n').c_str(), 1);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    setenv("PROC_NAME", "short", 1);
    EXPECT_STREQ(EnvManager::ProcName(), "");
}

TEST_F(ProcName, SetButEmptyInTheEnvironmentLeavesTheProcessNamelessForGood) {
    NameThisProcess("comm");
    setenv("PROC_NAME", "", 1);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    unsetenv("PROC_NAME");
    EXPECT_STREQ(EnvManager::ProcName(), "");
}

TEST_F(ProcName, IsElseThatOfTheProcess) {
    NameThisProcess("my-process");
    EXPECT_STREQ(EnvManager::ProcName(), "my-process");
    NameThisProcess("other");
    EXPECT_STREQ(EnvManager::ProcName(), "my-process");
}

TEST_F(ProcName, OfTheProcessManagerIsItsOwn) {
    NameThisProcess("process-manager");
    EXPECT_STREQ(EnvManager::ProcName(), "PROCMGR");
}

TEST_F(ProcName, OfTheProcessEndsAtABlank) {
    NameThisProcess(" \t two words");
    EXPECT_STREQ(EnvManager::ProcName(), "two");
}

TEST_F(ProcName, OfTheProcessMayHave16Characters) {
    const FakeComm comm("sixteen-is-fine-\n");
    EXPECT_STREQ(EnvManager::ProcName(), "sixteen-is-fine-");
    EXPECT_GE(comm.Reads(), 1U);
}

TEST_F(ProcName, OfTheProcessOf17CharactersIsNotTaken) {
    for (const std::size_t length : {17U, 60U, 1000U}) {
        InFreshProcess([length] {
            const FakeComm comm(std::string(length, 'c') + "\n");
            EXPECT_STREQ(EnvManager::ProcName(), "");
            EXPECT_GE(comm.Reads(), 1U);
        });
    }
}

TEST_F(ProcName, IsEmptyWhenTheProcesssCannotBeReadAndIsNotTriedAgain) {
    NameThisProcess("my-process");
    {
        const ScopedFault fault(Call::Open, EACCES, Where().Path("/proc/" + std::to_string(getpid()) + "/comm"));
        EXPECT_STREQ(EnvManager::ProcName(), "");
        EXPECT_EQ(fault.Hits(), 1U);
    }
    EXPECT_STREQ(EnvManager::ProcName(), "");
}

TEST_F(ProcName, IsEmptyWhenReadingTheProcesssFails) {
    NameThisProcess("my-process");
    const ScopedFault fault(Call::Read, EIO);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    EXPECT_EQ(fault.Hits(), 1U);
}

TEST_F(ProcName, SetBeforehandIsKept) {
    InFreshProcess([] {
        setenv("PROC_NAME", "environment", 1);
        EXPECT_EQ(SetProcName("beforehand"), 0);
        EXPECT_STREQ(EnvManager::ProcName(), "beforehand");
    });
    InFreshProcess([] {
        EXPECT_EQ(SetEnv("PROC_NAME", "by SetEnv"), 0);
        setenv("PROC_NAME", "environment", 1);
        EXPECT_STREQ(EnvManager::ProcName(), "by SetEnv");
    });
}

TEST_F(ProcName, CanBeSetAfterwards) {
    setenv("PROC_NAME", "environment", 1);
    EXPECT_STREQ(EnvManager::ProcName(), "environment");
    EXPECT_EQ(SetProcName("afterwards"), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "afterwards");
}

TEST_F(ProcName, IsResolvedOnceForAllThreads) {
    NameThisProcess("my-process");
    const CallCounter opened(Call::Open, Where().PathHas("/comm"));
    std::atomic<int> right{0};
    OnThreads(4, [&](int) { right += std::strcmp(EnvManager::ProcName(), "my-process") == 0 ? 1 : 0; });
    EXPECT_EQ(right, 4);
    EXPECT_EQ(opened.Count(), 1U);
}

TEST_F(ProcName, IsResolvedUnderTheEnvironmentMutex) {
    bool free = true;
    const ScopedHook hook(
        Call::Open, [&](const CallInfo &) { free = EnvironmentIsFree(); }, Where().PathHas("/comm"));
    EnvManager::ProcName();
    EXPECT_EQ(hook.Hits(), 1U);
    EXPECT_FALSE(free);
    EXPECT_TRUE(EnvironmentIsFree());
}

TEST_F(SetProcNameTest, TakesUpTo100CharactersAndEmptiesTheNameElse) {
    EXPECT_EQ(SetProcName(std::string(LONGEST_NAME, 'n')), 0);
    EXPECT_EQ(EnvManager::ProcName(), std::string(LONGEST_NAME, 'n'));
    EXPECT_EQ(EnvManager::ProcName()[LONGEST_NAME], '\0');
    EXPECT_EQ(SetProcName(std::string(LONGEST_NAME + 1, 'n')), ERANGE);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    EXPECT_EQ(SetProcName(std::string(5000, 'n')), ERANGE);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    EXPECT_EQ(SetProcName(""), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    EXPECT_EQ(SetProcName(std::string("cut\0here", 8)), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "cut");
}

TEST_F(SetProcNameTest, WithoutMemoryForOneNameMoreTheOneBeforeStays) {
    for (const char *const name : {"one", "two", "three", "four"}) {
        EXPECT_EQ(SetProcName(name), 0);
    }
    {
        const AllocFault fault(1);
        EXPECT_EQ(SetProcName("five"), ENOMEM);
        EXPECT_TRUE(fault.Hit());
    }
    EXPECT_STREQ(EnvManager::ProcName(), "four");
    EXPECT_EQ(SetProcName("one"), 0) << "is known";
    EXPECT_EQ(SetProcName("five"), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "five");
}

TEST_F(EnableDefaultProcNameTest, ReplacesTheName) {
    NameThisProcess("my-process");
    SetProcName("before");
    EnableDefaultProcName();
    EXPECT_STREQ(EnvManager::ProcName(), "my-process");
}

TEST_F(EnableDefaultProcNameTest, LeavesTheNameWhenItCannotHaveTheProcesss) {
    SetProcName("before");
    {
        const FakeComm comm("seventeen-is-long\n");
        EnableDefaultProcName();
        EXPECT_GE(comm.Reads(), 1U);
    }
    EXPECT_STREQ(EnvManager::ProcName(), "before");
    const ScopedFault fault(Call::Open, EMFILE, Where().PathHas("/comm"));
    EnableDefaultProcName();
    EXPECT_STREQ(EnvManager::ProcName(), "before");
    EXPECT_EQ(fault.Hits(), 1U);
}

TEST(GetRunMode, IsReadUntilItIsSetAndThenKept) {
    InFreshProcess([] {
        EXPECT_EQ(EnvManager::GetRunMode(), "");
        setenv("KELDOR_RUN_MODE", "", 1);
        EXPECT_EQ(EnvManager::GetRunMode(), "");
        setenv("KELDOR_RUN_MODE", "1", 1);
        EXPECT_EQ(EnvManager::GetRunMode(), "1");
        setenv("KELDOR_RUN_MODE", "2", 1);
        EXPECT_EQ(EnvManager::GetRunMode(), "1");
        unsetenv("KELDOR_RUN_MODE");
        EXPECT_EQ(EnvManager::GetRunMode(), "1");
    });
}

TEST(GetRunMode, IsSeenByTheNextCallHoweverItComesIntoTheEnvironment) {
    static char variable[] = "KELDOR_RUN_MODE=1";
    static char *variables[] = {variable, nullptr};
    const std::vector<std::function<void()>> ways = {
        [] { setenv("KELDOR_RUN_MODE", "1", 0); },
        [] { putenv(variable); },
        [] { environ = variables; },
        [] { // no variable more than before
            unsetenv("PATH");
            setenv("KELDOR_RUN_MODE", "1", 1);
        },
        [] { // into an array that grew before, where there may be room for it
            setenv("KELDOR_OTHER", "1", 1);
            EXPECT_EQ(EnvManager::GetRunMode(), "");
            unsetenv("KELDOR_OTHER");
            EXPECT_EQ(EnvManager::GetRunMode(), "");
            setenv("KELDOR_RUN_MODE", "1", 1);
        },
        [] {
            clearenv();
            EXPECT_EQ(EnvManager::GetRunMode(), "");
            setenv("KELDOR_RUN_MODE", "1", 1);
        },
        [] { // in the place of an empty one
            setenv("KELDOR_RUN_MODE", "", 1);
            EXPECT_EQ(EnvManager::GetRunMode(), "");
            setenv("KELDOR_RUN_MODE", "1", 1);
        },
    };
    for (std::size_t i = 0; i < ways.size(); ++i) {
        SCOPED_TRACE(i);
        InFreshProcess([&] {
            for (int call = 0; call < 3; ++call) {
                EXPECT_EQ(EnvManager::GetRunMode(), "");
            }
            ways[i]();
            EXPECT_EQ(EnvManager::GetRunMode(), "1");
        });
    }
}

// An empty one that the process was started with is changed where it stands.
TEST(GetRunMode, IsSeenInThePlaceOfAnEmptyOneFromTheStart) {
    static constexpr char ROLE[] = "TARVO_TEST_EMPTY_RUN_MODE";
    if (getenv(ROLE) != nullptr) {
        EXPECT_EQ(EnvManager::GetRunMode(), "");
        EXPECT_EQ(EnvManager::GetRunMode(), "");
        setenv("KELDOR_RUN_MODE", "1", 1);
        EXPECT_EQ(EnvManager::GetRunMode(), "1");
        return;
    }
    const int code = ChildProcess([](Channel &) {
                         setenv(ROLE, "1", 1);
                         setenv("KELDOR_RUN_MODE", "", 1);
                         const std::string only = "--gtest_filter=GetRunMode.IsSeenInThePlaceOfAnEmptyOneFromTheStart";
                         execl("/proc/self/exe", "unit_api", only.c_str(), nullptr);
                         return 1;
                     }).Wait();
    EXPECT_EQ(code, 0);
}

// Calls on several threads would wait for each other there.
TEST(GetRunMode, TakesNoLockWhereTheProcessWasStartedWithout) {
    if (tarvo_test::LibraryCounts()) {
        GTEST_SKIP() << "what counts the coverage changes the environment before the program starts";
    }
    InFreshProcess([] {
        EXPECT_EQ(EnvManager::GetRunMode(), "");
        MutexLock lock(EnvManager::Instance());
        std::thread([] { EXPECT_EQ(EnvManager::GetRunMode(), ""); }).join();
    });
}

TEST(GetRunMode, IsTheSameForAllThreads) {
    InFreshProcess([] {
        setenv("KELDOR_RUN_MODE", "a mode that is too long to be kept in place", 1);
        std::atomic<int> right{0};
        OnThreads(4, [&](int) {
            for (int round = 0; round < 100; ++round) {
                right += EnvManager::GetRunMode() == getenv("KELDOR_RUN_MODE") ? 1 : 0;
            }
        });
        EXPECT_EQ(right, 400);
    });
}

TEST(CheckVelmlibPath, WantsTheLibraryPathInUpTo4096Characters) {
    const std::string lib = LIB;
    EXPECT_EQ(EnvManager::CheckVelmlibPath(lib), 0);
    EXPECT_EQ(EnvManager::CheckVelmlibPath("/a/b.so " + lib + ":/c"), 0);
    EXPECT_EQ(EnvManager::CheckVelmlibPath("/root" + lib + ".7"), 0);
    EXPECT_EQ(EnvManager::CheckVelmlibPath(""), -EINVAL);
    EXPECT_EQ(EnvManager::CheckVelmlibPath("/usr/lib64/libvelm.so."), -EINVAL);
    EXPECT_EQ(EnvManager::CheckVelmlibPath("/usr/lib64/libvelm.so.2"), -EINVAL);
    EXPECT_EQ(EnvManager::CheckVelmlibPath(std::string(LONGEST_PATH - lib.size(), '/') + lib), 0);
    EXPECT_EQ(EnvManager::CheckVelmlibPath(std::string(LONGEST_PATH, '/')), -EINVAL);
    EXPECT_EQ(EnvManager::CheckVelmlibPath(std::string(LONGEST_PATH + 1 - lib.size(), '/') + lib), -36);
    EXPECT_EQ(EnvManager::CheckVelmlibPath(std::string(LONGEST_PATH + 1, '/')), -ENAMETOOLONG);
}

TEST(CheckEnvPreparation, WantsTheNameAndTheStatusOrThePreload) {
    struct Row {
        const char *name;
        const char *status;
        const char *preload;
        bool expected;
    };
    const Row rows[] = {
        {nullptr, nullptr, nullptr, false},
        {nullptr, "READY", LIB, false},
        {"p", nullptr, nullptr, false},
        {"p", nullptr, "", false},
        {"p", nullptr, "/lib/other.so", false},
        {"p", nullptr, "/usr/lib64/libvelm.so.1 /lib/other.so", true},
        {"p", "READY", nullptr, true},
        {"p", "", nullptr, true},
        {"p", "anything", "/lib/other.so", true},
        {"", "READY", nullptr, true},
    };
    for (const Row &row : rows) {
        InFreshProcess([&row] {
            const auto set = [](const char *key, const char *value) {
                if (value != nullptr) {
                    setenv(key, value, 1);
                }
            };
            set("PROC_NAME", row.name);
            set("VELM_STATUS", row.status);
            set("LD_PRELOAD", row.preload);
            EXPECT_EQ(EnvManager::CheckEnvPreparation(), row.expected)
                << (row.name ? row.name : "-") << (row.status ? row.status : "-") << (row.preload ? row.preload : "-");
            EXPECT_TRUE(EnvironmentIsFree());
        });
    }
}

TEST_F(SetEnvTest, LaterValueReplacesTheEarlierEvenWithNothing) {
    EXPECT_EQ(SetEnv("TARVO_TEST_VARIABLE", "one"), 0);
    EXPECT_STREQ(getenv("TARVO_TEST_VARIABLE"), "one");
    EXPECT_EQ(SetEnv("TARVO_TEST_VARIABLE", "two"), 0);
    EXPECT_STREQ(getenv("TARVO_TEST_VARIABLE"), "two");
    EXPECT_EQ(SetEnv("TARVO_TEST_VARIABLE", ""), 0);
    EXPECT_STREQ(getenv("TARVO_TEST_VARIABLE"), "");
}

TEST_F(SetEnvTest, RefusesWhatIsNoName) {
    EXPECT_EQ(SetEnv("", "x"), -EINVAL);
    EXPECT_EQ(SetEnv("A=B", "x"), -EINVAL);
}

TEST_F(SetEnvTest, UnsetsFirstAndNeverOverwrites) {
    const CallCounter unset(Call::Unsetenv, Where().Path("TARVO_TEST_VARIABLE"));
    const CallCounter set(Call::Setenv, Where().Path("TARVO_TEST_VARIABLE").Number(0));
    EXPECT_EQ(SetEnv("TARVO_TEST_VARIABLE", "x"), 0);
    EXPECT_EQ(unset.Count(), 1U);
    EXPECT_EQ(set.Count(), 1U);
}

TEST_F(SetEnvTest, ReportsTheFailureOfEitherStep) {
    setenv("PROC_NAME", "old", 1);
    SetProcName("old");
    {
        const ScopedFault fault(Call::Unsetenv, EPERM);
        EXPECT_EQ(SetEnv("PROC_NAME", "new"), -EPERM);
        EXPECT_STREQ(getenv("PROC_NAME"), "old");
    }
    const ScopedFault fault(Call::Setenv, ENOMEM);
    EXPECT_EQ(SetEnv("PROC_NAME", "new"), -ENOMEM);
    EXPECT_EQ(getenv("PROC_NAME"), nullptr);
    EXPECT_STREQ(EnvManager::ProcName(), "old");
}

TEST_F(SetEnvTest, NamesTheProcessWithItsVariable) {
    EXPECT_EQ(SetEnv("PROC_NAME", "first"), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "first");
    EXPECT_EQ(SetEnv("PROC_NAME2", "second"), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "first");
    const std::string tooLong(LONGEST_NAME + 1, 'n');
    EXPECT_EQ(SetEnv("PROC_NAME", tooLong), 0);
    EXPECT_STREQ(EnvManager::ProcName(), "");
    EXPECT_EQ(getenv("PROC_NAME"), tooLong);
}

TEST_F(UpdateLdPreloadTest, PutsTheLibraryInFront) {
    struct Row {
        const char *preload;
        const char *libPath;
        int result;
        const char *expected;
    };
    const std::string libFirst = std::string(LIB) + " ";
    const std::string own = "/root/usr/lib64/libvelm.so.1";
    const std::string ownFirst = own + " ";
    const std::string withOther = libFirst + "/lib/other.so";
    const std::string ownWithOther = ownFirst + "/lib/other.so";
    const std::string tooLong = std::string(LONGEST_PATH, '/') + LIB;
    const Row rows[] = {
        // A blank follows even where nothing does.
        {nullptr, nullptr, 0, libFirst.c_str()},
        {"", nullptr, 0, libFirst.c_str()},
        {"/lib/other.so", nullptr, 0, withOther.c_str()},
        {LIB, nullptr, 0, LIB},
        {"/a /usr/lib64/libvelm.so.1", "/nowhere", 0, "/a /usr/lib64/libvelm.so.1"},
        {nullptr, own.c_str(), 0, ownFirst.c_str()},
        {"/lib/other.so", own.c_str(), 0, ownWithOther.c_str()},
        {"/lib/other.so", "/nowhere", -EINVAL, "/lib/other.so"},
        {"/lib/other.so", "", -EINVAL, "/lib/other.so"},
        {nullptr, "/nowhere", -EINVAL, nullptr},
        {"/lib/other.so", tooLong.c_str(), -ENAMETOOLONG, "/lib/other.so"},
    };
    for (const Row &row : rows) {
        InFreshProcess([&row] {
            if (row.preload != nullptr) {
                setenv("LD_PRELOAD", row.preload, 1);
            }
            if (row.libPath != nullptr) {
                setenv("VELM_LIB_PATH", row.libPath, 1);
            }
            EXPECT_EQ(UpdateLdPreload(), row.result);
            EXPECT_STREQ(getenv("LD_PRELOAD"), row.expected);
        });
    }
}

TEST_F(UpdateLdPreloadTest, AddsTheLibraryOnce) {
    setenv("LD_PRELOAD", "/lib/other.so", 1);
    EXPECT_EQ(UpdateLdPreload(), 0);
    EXPECT_EQ(UpdateLdPreload(), 0);
    EXPECT_STREQ(getenv("LD_PRELOAD"), "/usr/lib64/libvelm.so.1 /lib/other.so");
}

TEST_F(UpdateLdPreloadTest, ReportsThatItCouldNotSetIt) {
    const ScopedFault fault(Call::Setenv, ENOMEM, Where().Path("LD_PRELOAD"));
    EXPECT_EQ(UpdateLdPreload(), -ENOMEM);
}

TEST_F(EnvInit, PreparesTheEnvironmentOfAChild) {
    EXPECT_EQ(EnvManager::EnvInit("child"), 0);
    EXPECT_STREQ(getenv("PROC_NAME"), "child");
    EXPECT_STREQ(getenv("VELM_STATUS"), "READY");
    EXPECT_STREQ(getenv("LD_PRELOAD"), "/usr/lib64/libvelm.so.1 ");
    EXPECT_STREQ(EnvManager::ProcName(), "child");
    EXPECT_TRUE(EnvManager::CheckEnvPreparation());
}

TEST_F(EnvInit, EndsAtTheFirstStepThatFails) {
    for (const char *variable : {"PROC_NAME", "VELM_STATUS", "LD_PRELOAD"}) {
        InFreshProcess([variable] {
            const ScopedFault fault(Call::Setenv, ENOMEM, Where().Path(variable));
            EXPECT_EQ(EnvManager::EnvInit("child"), -ENOMEM);
            const bool named = std::strcmp(variable, "PROC_NAME") != 0;
            const bool ready = std::strcmp(variable, "LD_PRELOAD") == 0;
            EXPECT_EQ(getenv("PROC_NAME") != nullptr, named);
            EXPECT_EQ(getenv("VELM_STATUS") != nullptr, ready);
            EXPECT_EQ(getenv("LD_PRELOAD"), nullptr);
            EXPECT_TRUE(EnvironmentIsFree());
        });
    }
    InFreshProcess([] {
        setenv("VELM_LIB_PATH", "/nowhere", 1);
        EXPECT_EQ(EnvManager::EnvInit("child"), -EINVAL);
        EXPECT_EQ(getenv("LD_PRELOAD"), nullptr);
    });
}

TEST_F(EnvInit, HoldsTheEnvironmentMutexThroughout) {
    unsigned sets = 0;
    bool everFree = false;
    const ScopedHook hook(Call::Setenv, [&](const CallInfo &) {
        ++sets;
        everFree = everFree || EnvironmentIsFree();
    });
    EXPECT_EQ(EnvManager::EnvInit("child"), 0);
    EXPECT_EQ(sets, 3U);
    EXPECT_FALSE(everFree);
    EXPECT_TRUE(EnvironmentIsFree());
}

} // namespace
