// The ends of a process with calls under way in both directions, on a pipe that it has opened as a client and on one
// that its server has: it ends soon and as it was told, no sanitizer has anything to report, and its peer goes on.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "support/Sanitized.h"
#include "support/Watchdog.h"
#include "system/SystemTest.h"

namespace tarvo_test {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr Milliseconds USUAL_LIMIT(2000);
constexpr std::chrono::seconds HANG(60);
constexpr int DEFAULT_RUNS = 3;
// A peer keeps what it needs to join its threads.
constexpr int RUNS_OF_A_PEER = 50;

struct Ending {
    const char *name;
    bool orderly; // the library is told, and removes its files
    int signal;   // that ends the process; 0: none, and its code is 0
};

void PrintTo(const Ending &ending, std::ostream *out) { *out << ending.name; }

int FromEnvironment(const char *variable, int otherwise) {
    const char *text = std::getenv(variable);
    return text == nullptr ? otherwise : std::max(1, std::atoi(text));
}

// What a process writes to its standard error, where sanitizers report.
class ErrorOutput {
public:
    ErrorOutput() : file(memfd_create("stderr", MFD_CLOEXEC)) {}
    ~ErrorOutput() { close(file); }
    ErrorOutput(const ErrorOutput &) = delete;
    ErrorOutput &operator=(const ErrorOutput &) = delete;

    bool Take() const { return dup2(file, STDERR_FILENO) >= 0; }
    std::string Text() const {
        std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), '\0');
        text.resize(static_cast<std::size_t>(std::max<ssize_t>(pread(file, text.data(), text.size(), 0), 0)));
        // An emulator tells of the signal that ends a program.
        return EMULATED && text.rfind("qemu: uncaught target signal 6 (Aborted)", 0) == 0 ? "" : text;
    }

private:
    const int file;
};

std::string Calls(const std::string &tag, int fd) {
    return "callon timeout=20000 tag=" + tag + " " + FillWords(1000, 1) + " fd=" + std::to_string(fd);
}

class ExitTest : public SystemTest, public testing::WithParamInterface<Ending> {
protected:
    ExitTest() {
        if (!GetParam().orderly) {
            FilesMayStay();
        }
    }

    void StartPeer() {
        peer = std::make_unique<PeerProcess>();
        Serve(*peer, Name("peer"), "callback=echo");
    }

    // Starts a process with traffic, ends it, and yields how long that took.
    Clock::duration RunOnce();
    void AwaitCalls(PeerProcess &process);
    void ExpectEnd(int status);

    std::unique_ptr<PeerProcess> peer;
};

void ExitTest::AwaitCalls(PeerProcess &process) {
    process.Await("calling tag=out");
    process.Await("calling tag=in");
}

void ExitTest::ExpectEnd(int status) {
    if (GetParam().signal != 0) {
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == GetParam().signal) << "status " << status;
    } else {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    }
}

Clock::duration ExitTest::RunOnce() {
    const Watchdog watchdog(HANG);
    const ErrorOutput errors;
    PeerProcess process([&errors] { return errors.Take(); });
    Serve(process, Name("mortal"), "callback=echo");
    const Pair out = Connect(*peer, Name("peer"), process, Name("out"), "callback=echo");
    const Pair in = Connect(process, Name("mortal"), *peer, Name("in"), "callback=echo");
    for (PeerProcess *side : {peer.get(), &process}) {
        side->Ask(Calls("out", side == &process ? out.second : out.first));
        side->Ask(Calls("in", side == &process ? in.first : in.second));
    }
    AwaitCalls(*peer);
    AwaitCalls(process);

    const Clock::time_point begin = Clock::now();
    process.Tell("end how=" + std::string(GetParam().name) + " fd=" + std::to_string(out.second));
    const int status = process.Wait();
    const Clock::duration taken = Clock::now() - begin;

    ExpectEnd(status);
    EXPECT_EQ(errors.Text(), "");
    for (const int handle : {out.first, in.second}) {
        peer->Await("gone fd=" + std::to_string(handle));
        EXPECT_EQ(peer->AskInt("close fd=" + std::to_string(handle)), 0);
    }
    peer->Await("stopped tag=out");
    peer->Await("stopped tag=in");
    if (GetParam().orderly) {
        AwaitFilesGone(Name("mortal"), Name("in") + "_" + std::to_string(peer->Pid()));
    }
    AwaitFilesGone(Name("peer"), Name("out") + "_" + std::to_string(process.Pid()));
    return taken;
}

TEST_P(ExitTest, TrafficInBothDirectionsEndsWithTheProcess) {
    const int runs = FromEnvironment("TARVO_EXIT_RUNS", DEFAULT_RUNS);
    std::vector<Milliseconds> times;
    for (int run = 0; run < runs && !HasFailure(); ++run) {
        if (run % RUNS_OF_A_PEER == 0) {
            if (peer) {
                EXPECT_EQ(peer->Quit(), 0);
            }
            StartPeer();
        }
        times.push_back(std::chrono::duration_cast<Milliseconds>(RunOnce()));
    }
    ASSERT_FALSE(times.empty());
    EXPECT_EQ(peer->Quit(), 0);
    std::sort(times.begin(), times.end());
    std::printf("%s: %zu runs, median %lld ms, slowest %lld ms\n", GetParam().name, times.size(),
                static_cast<long long>(times[times.size() / 2].count()), static_cast<long long>(times.back().count()));
    // Single ones may have been kept waiting by the machine, unless it is said to be idle.
    EXPECT_LT(times[times.size() / 2], USUAL_LIMIT);
    const int strict = FromEnvironment("TARVO_EXIT_LIMIT_MS", 0);
    EXPECT_TRUE(strict == 0 || times.back() <= Milliseconds(strict)) << "slower than " << strict << " ms";
}

constexpr Ending ENDINGS[] = {
    {"exit", true, 0},   {"return", true, 0},       {"quick_exit", false, 0},
    {"_exit", false, 0}, {"abort", false, SIGABRT}, {"pthread_exit", true, 0},
};

std::string NameOf(const testing::TestParamInfo<Ending> &way) {
    const std::string name = way.param.name;
    return name[0] == '_' ? "underscore" + name : name;
}

INSTANTIATE_TEST_SUITE_P(Ways, ExitTest, testing::ValuesIn(ENDINGS), NameOf);

} // namespace
} // namespace tarvo_test
