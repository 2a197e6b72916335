// Stops servers with SIGSTOP and shows what their callers, and the callers of others, feel of it.
#include <fmt/format.h>
#include <poll.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "storm/Board.h"
#include "storm/Call.h"
#include "storm/CommandLine.h"
#include "storm/Percentile.h"
#include "storm/Proof.h"
#include "storm/SoakPeers.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/Threads.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

constexpr int OPEN_TIMEOUT_MS = 30000;
constexpr int CALL_TIMEOUT_MS = 100;
constexpr uint32_t CALL_SIZE = 24;
constexpr int CALLERS = 2;

struct Options {
    double seconds = 3;
    double latenessMs = 20;
    double sendLimitMs = 5;
    double share = 0.5;
};

// What several threads measure.
class Samples {
public:
    void Add(double value) {
        const std::lock_guard<std::mutex> lock(mutex);
        values.push_back(value);
    }
    double At(double part) const { return Percentile(values, part); }
    std::size_t Size() const { return values.size(); }

private:
    std::mutex mutex;
    std::vector<double> values;
};

double Milliseconds(int64_t since) { return static_cast<double>(Now() - since) / 1e6; }

// Owns: the servers' processes. Threads: its own, while it measures. Locks: none. Ends: kills the servers.
class Stopped {
public:
    explicit Stopped(const Options &what) : options(what) {}

    bool Run() {
        // One server whose FIFO is filled, one whose FIFO has room for the calls that go unanswered, and one that runs.
        for (const char *role : {"full", "silent", "running"}) {
            const std::string name = tarvo_test::UniqueName(role);
            SoakBoard *shared = &*board;
            servers.push_back(std::make_unique<ChildProcess>(
                [=](Channel &) { return SoakServer(*shared, name, TARVO_PRIORITY_NORMAL); }));
            names.push_back(name);
        }
        for (const std::string &name : names) {
            fds.push_back(ConnectTo(name));
        }
        if (!good) {
            return false;
        }
        const double before = Rate(nullptr);
        Stop(*servers[0]);
        Stop(*servers[1]);
        const double during = Rate([this](const std::atomic<bool> &over) {
            std::thread refused([&] { SendToFull(over); });
            CallSilent(over);
            refused.join();
        });
        servers[0]->Kill(SIGCONT);
        servers[1]->Kill(SIGCONT);
        const double after = Rate(nullptr);
        Report(before, during, after);
        ExpectRecovery();
        TarvoCfgFinishServer();
        board->board.Set(Command::Finish);
        for (const auto &server : servers) {
            Check(server->EndsWithin(OPEN_TIMEOUT_MS) && server->Wait() == 0, "a server does not end");
        }
        return good;
    }

private:
    int ConnectTo(const std::string &server) {
        const std::string self = tarvo_test::UniqueName("c");
        TarvoAttr attr;
        attr.targetName = server.c_str();
        attr.selfName = self.c_str();
        attr.timeout = OPEN_TIMEOUT_MS;
        int fd = 0;
        const int64_t start = Now();
        // -ENXIO until the server is there.
        while ((fd = TarvoCreateClient(&attr)) < 0 && Milliseconds(start) < OPEN_TIMEOUT_MS) {
            poll(nullptr, 0, 1);
        }
        Check(fd > 0 && Ask(fd, Question(), CALL_SIZE, OPEN_TIMEOUT_MS).right, "no answer from " + server);
        return fd;
    }

    void Stop(ChildProcess &server) {
        server.Kill(SIGSTOP);
        int status = 0;
        Check(waitpid(server.Pid(), &status, WUNTRACED) == server.Pid() && WIFSTOPPED(status), "not stopped");
    }

    // Calls of the running server a second, while `beside` does something else until it is told that time is over.
    double Rate(const std::function<void(const std::atomic<bool> &)> &beside) {
        std::atomic<bool> over{false};
        std::atomic<uint64_t> calls{0};
        tarvo_test::Threads threads(CALLERS, [&](int) {
            while (!over) {
                Check(Ask(fds[2], Question(), CALL_SIZE, OPEN_TIMEOUT_MS).right, "a call of the running server");
                ++calls;
            }
        });
        if (beside) {
            threads.Start([&] { beside(over); });
        }
        const int64_t start = Now();
        poll(nullptr, 0, static_cast<int>(options.seconds * 1000));
        over = true;
        threads.Join();
        return static_cast<double>(calls) / (Milliseconds(start) / 1000);
    }

    // Fills the FIFO of a stopped server; from then on each send must fail at once.
    void SendToFull(const std::atomic<bool> &over) {
        int result = 0;
        while (result == 0 && filled < 100000) {
            result = Send(fds[0], Question(), LARGEST);
            filled += result == 0 ? 1 : 0;
        }
        while (!over) {
            const int64_t start = Now();
            result = Send(fds[0], Question(), LARGEST);
            refusal.Add(Milliseconds(start));
            Check(result == -EAGAIN, "a send to a full FIFO returned " + std::to_string(result));
            poll(nullptr, 0, 1);
        }
    }

    // Calls of a stopped server with room in its FIFO end at their time-out.
    void CallSilent(const std::atomic<bool> &over) {
        tarvo_test::OnThreads(CALLERS, [&](int) {
            while (!over) {
                const int64_t start = Now();
                const int result = Ask(fds[1], Question(), CALL_SIZE, CALL_TIMEOUT_MS).result;
                lateness.Add(Milliseconds(start) - CALL_TIMEOUT_MS);
                Check(result == -ETIMEDOUT, "a call of a stopped server returned " + std::to_string(result));
            }
        });
    }

    void Report(double before, double during, double after) {
        const double share = during / std::min(before, after);
        fmt::print("stopped for {:.1f} s\n", options.seconds);
        fmt::print("{:<52}{:>10}\n", "largest requests until the FIFO was full", filled);
        fmt::print("{:<52}{:>10}\n", "sends refused with -EAGAIN", refusal.Size());
        fmt::print("{:<52}{:>10.3f} ms\n", "a refused send took, 99th percentile", refusal.At(0.99));
        fmt::print("{:<52}{:>10.3f} ms\n", "a refused send took, maximum", refusal.At(1));
        fmt::print("{:<52}{:>10}\n", "calls ended by their time-out", lateness.Size());
        fmt::print("{:<52}{:>10.3f} ms\n", "later than that, 99th percentile", lateness.At(0.99));
        fmt::print("{:<52}{:>10.3f} ms\n", "later than that, maximum", lateness.At(1));
        fmt::print("{:<52}{:>10.0f} /s before, {:.0f} during, {:.0f} after\n", "calls of another server", before,
                   during, after);
        fmt::print("{:<52}{:>10.2f}\n", "share of the lower undisturbed rate", share);
        Check(filled >= 16 && refusal.Size() > 0 && lateness.Size() > 0, "too little was measured");
        Check(refusal.At(0.99) < options.sendLimitMs, "refused sends are slow");
        Check(lateness.At(0) >= -1, "a call ended before its time-out");
        Check(lateness.At(0.99) < options.latenessMs, "time-outs are late");
        Check(share >= options.share, "the stopped servers slow the others down");
    }

    // Both answer again once they run, and take requests.
    void ExpectRecovery() {
        for (const int fd : {fds[0], fds[1]}) {
            Check(Ask(fd, Question(), CALL_SIZE, OPEN_TIMEOUT_MS).right, "no answer after the stop");
        }
    }

    void Check(bool fine, const std::string &what) {
        if (!fine && good.exchange(false)) {
            fmt::print("FAILED: {}\n", what);
        }
    }

    const Options options;
    Shared<SoakBoard> board;
    std::vector<std::unique_ptr<ChildProcess>> servers;
    std::vector<std::string> names;
    std::vector<int> fds;
    unsigned filled = 0;
    Samples refusal;
    Samples lateness;
    std::atomic<bool> good{true};
};

int Main(int argc, char **argv) {
    Options options;
    CommandLine line(
        "Stops servers and watches their callers and those of another server. The exit status is the verdict.");
    line.Option("--seconds", options.seconds, "how long they are stopped");
    line.Option("--lateness", options.latenessMs, "99th percentile allowed beyond a time-out, in ms");
    line.Option("--send-limit", options.sendLimitMs, "99th percentile allowed for a refused send, in ms");
    line.Option("--share", options.share, "part of its undisturbed rate that another server's callers must keep");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    std::signal(SIGPIPE, SIG_IGN);
    return Prove([&] { return Stopped(options).Run(); });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
