// A client that closes its pipe to a server and connects again under the same name at once, thousands of times: every
// connection must be answered, however busy the processors and however slow the server's callbacks are.
#include <fmt/format.h>
#include <poll.h>
#include <sched.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "storm/Board.h"
#include "storm/Call.h"
#include "storm/CommandLine.h"
#include "storm/Percentile.h"
#include "storm/Proof.h"
#include "support/Names.h"
#include "support/Process.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

constexpr int OPEN_TIMEOUT_MS = 60000;
constexpr int CALL_TIMEOUT_MS = 60000;
constexpr int SERVER_LIMIT_MS = 60000;
// So long a client waits for a server that has not noticed yet that the pipe before is closed. One that is held up for
// longer closes the new one with it.
constexpr int64_t LEFTOVER_LIMIT_NS = 100000000;
constexpr uint32_t CALL_SIZE = 24;
constexpr uint32_t ONE_WAY = 1; // in Question::serverGeneration: wants no answer
constexpr unsigned LINES = 10;  // of failures that are printed

struct Options {
    unsigned rounds = 10000;
    bool oneCore = false;
    unsigned load = 0;
    int callbackMs = 0;
    bool noCallback = false;
};

int callbackMs = 0; // the callbacks are plain functions

void OnRequest(int fd, TarvoRequest *request) {
    const std::optional<Question> question = request == nullptr ? std::nullopt : QuestionOf(*request);
    if (!question) {
        return;
    }
    if (question->serverGeneration == ONE_WAY) {
        poll(nullptr, 0, callbackMs); // the notice of the close waits behind this
    } else {
        Answer(fd, *request, 0);
    }
}

int Serve(Channel &channel, const std::string &name, bool noCallback) {
    std::signal(SIGPIPE, SIG_IGN);
    // However long either side is held up, the server does not give a client up.
    setenv("KELDOR_RUN_MODE", "1", 1);
    TarvoServerAttr attr;
    attr.callback = noCallback ? nullptr : OnRequest;
    attr.selfName = name.c_str();
    const int result = TarvoCreateServer(&attr);
    if (!channel.Signal() || result != 0) {
        return 1;
    }
    const bool told = channel.Await();
    TarvoCfgFinishServer();
    return told ? 0 : 1;
}

int Burn() {
    for (volatile unsigned counter = 0;; ++counter) {
    }
}

void StayOnOneCore() {
    cpu_set_t all;
    CPU_ZERO(&all);
    sched_getaffinity(0, sizeof(all), &all);
    int first = 0;
    while (first < CPU_SETSIZE - 1 && !CPU_ISSET(first, &all)) {
        ++first;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(first, &one);
    sched_setaffinity(0, sizeof(one), &one);
}

// Owns: the server's process and those that only burn time. Threads: one. Locks: none. Ends: kills what still runs.
class Reconnect {
public:
    explicit Reconnect(const Options &what) : options(what) {}

    bool Run() {
        if (options.oneCore) {
            StayOnOneCore(); // which the processes started from here on do too
        }
        callbackMs = options.callbackMs;
        const std::string server = tarvo_test::UniqueName("srv");
        ChildProcess serving([&](Channel &channel) { return Serve(channel, server, options.noCallback); });
        std::vector<std::unique_ptr<ChildProcess>> burning;
        for (unsigned i = 0; i < options.load; ++i) {
            burning.push_back(std::make_unique<ChildProcess>([](Channel &) { return Burn(); }));
        }
        if (!serving.Await()) {
            fmt::print("no server\n");
            return false;
        }
        const std::string self = tarvo_test::UniqueName("cli");
        for (unsigned round = 1; round <= options.rounds; ++round) {
            ConnectOnce(server, self, round);
        }
        Report();
        TarvoCfgFinishServer();
        const bool ended = serving.Signal() && serving.EndsWithin(SERVER_LIMIT_MS) && serving.Wait() == 0;
        return ended && failed == 0 && opens.size() == options.rounds && heldUp <= options.rounds / 100;
    }

private:
    void ConnectOnce(const std::string &server, const std::string &self, unsigned round) {
        TarvoAttr attr;
        attr.targetName = server.c_str();
        attr.selfName = self.c_str();
        attr.timeout = OPEN_TIMEOUT_MS;
        const int64_t start = Now();
        const int fd = TarvoCreateClient(&attr);
        if (fd < 0) {
            Fail(round, "open", fd);
            return;
        }
        const int64_t took = Now() - start;
        opens.push_back(static_cast<double>(took) / 1e6);
        Question question;
        question.number = round;
        const int result = options.noCallback ? Send(fd, question, CALL_SIZE) : Call(fd, question);
        if (result == -EPIPE && took >= LEFTOVER_LIMIT_NS) {
            ++heldUp;
        } else if (result != 0) {
            Fail(round, "call", result);
        }
        if (options.callbackMs > 0) {
            question.serverGeneration = ONE_WAY;
            Send(fd, question, CALL_SIZE);
        }
        TarvoClosePipe(fd);
    }

    static int Call(int fd, const Question &question) {
        const Reply reply = Ask(fd, question, CALL_SIZE, CALL_TIMEOUT_MS);
        return reply.result == 0 && !reply.right ? -EBADMSG : reply.result;
    }

    void Fail(unsigned round, const char *step, int result) {
        if (++failed <= LINES) {
            fmt::print("round {}: {} failed with {}\n", round, step, result);
        }
    }

    void Report() {
        fmt::print("{} rounds, {} failed, {} with a server that was held up{}{}{}\n", options.rounds, failed, heldUp,
                   options.oneCore ? ", one core" : "", options.load > 0 ? ", beside load" : "",
                   options.callbackMs > 0 ? ", slow callbacks" : "");
        fmt::print("an open took {:.3f} ms (median), {:.3f} ms (99th percentile), {:.3f} ms (maximum)\n",
                   Percentile(opens, 0.5), Percentile(opens, 0.99), Percentile(opens, 1));
    }

    const Options options;
    std::vector<double> opens; // in ms
    unsigned failed = 0;
    unsigned heldUp = 0;
};

int Main(int argc, char **argv) {
    Options options;
    CommandLine line("Closes a pipe to a server and connects again under the same name at once. The exit status is the "
                     "verdict: every connection is answered, but for "
                     "one in a hundred whose server was held up for longer than a client waits.");
    line.Option("--rounds", options.rounds, "how often");
    line.Flag("--one-core", options.oneCore, "both processes on one processor");
    line.Option("--load", options.load, "processes beside them that only burn time");
    line.Option("--callback-ms", options.callbackMs, "how long the server's callback is busy before each close, in ms");
    line.Flag("--no-callback", options.noCallback, "a server without a callback, which is sent to and not called");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    std::signal(SIGPIPE, SIG_IGN);
    return Prove([&] { return Reconnect(options).Run(); });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
