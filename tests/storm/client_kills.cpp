// client_kills: kills the server of a tarvo::Client again and again. Every call of the client must end with its own
// answer or an honest error, the client must come back each time, and its log must stay as good as empty.
#include <fmt/core.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "storm/CommandLine.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/SyslogCapture.h"
#include "support/Threads.h"
#include "tarvo.hpp"

using namespace std::chrono_literals;
using tarvo_test::Channel;
using tarvo_test::ChildProcess;

namespace {

constexpr std::chrono::milliseconds CALL_TIMEOUT{2000};
constexpr std::chrono::seconds WEDGED{60};

struct Settings {
    int kills = 1000;
    int threads = 2;
    bool isOneCore = false;
    double linesPerKill = 0.2;
    std::string server = tarvo_test::UniqueName("back");
};

int Serve(const std::string &name) {
    tarvo::IgnoreSigpipe();
    tarvo::Server::Start(tarvo::ServerOptions().As(name).OnRequest(
        [](const tarvo::Request &request) { return request.Text() + fmt::format(" {}", getpid()); }));
    while (true) {
        pause();
    }
}

// What the calls of all threads have come to.
struct Tally {
    std::atomic<long> answered{0};
    std::atomic<int> server{0};  // who has answered last
    std::atomic<long> away{0};   // not_connected
    std::atomic<long> broken{0}; // broken_pipe: the server went during the call
    std::atomic<long> late{0};   // timed_out: the same, unnoticed
    std::atomic<long> wrong{0};  // another's answer, or another error

    void AnsweredBy(int pid) {
        if (server.exchange(pid) != pid) {
            const std::lock_guard lock(mutex);
            changed.notify_one();
        }
    }
    // Returns once that server has answered; false after 60 s without.
    bool AwaitAnswerBy(int pid) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, WEDGED, [&] { return server == pid; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
};

void CallUntil(const std::atomic<bool> &end, tarvo::Client &client, int thread, Tally &tally) {
    for (long number = 0; !end; ++number) {
        const std::string question = fmt::format("{}:{}", thread, number);
        std::error_code error;
        const tarvo::Response response = client.Call(question, CALL_TIMEOUT, error);
        if (!error) {
            const std::string answer = response.Text();
            const bool isRight = answer.rfind(question + " ", 0) == 0;
            ++(isRight ? tally.answered : tally.wrong);
            tally.AnsweredBy(isRight ? std::stoi(answer.substr(question.size())) : 0);
        } else if (error == std::errc::not_connected) {
            ++tally.away;
            // No wait for anything: calls while nobody serves are part of the scene, but not all that this machine
            // does.
            std::this_thread::sleep_for(1ms);
        } else if (error == std::errc::broken_pipe) {
            ++tally.broken;
        } else if (error == std::errc::timed_out) {
            ++tally.late;
        } else {
            ++tally.wrong;
            fmt::print("call {}: {}\n", question, error.message());
        }
    }
}

// Prints what the process has written to the system log, and how often. The number of lines that are not about a call
// which was broken off.
int CountLines(const tarvo_test::SyslogCapture &log) {
    std::map<std::string, int> counts;
    int others = 0;
    for (const tarvo_test::LogLine &line : log.Lines()) {
        ++counts[line.message];
        const bool isOfACall = line.message.find("failed. Caught exception.") != std::string::npos ||
                               line.message.find("write unfinished, remote is closed.") != std::string::npos ||
                               line.message.rfind("Send req fail", 0) == 0 ||
                               line.message.rfind("Add OutRequest failed", 0) == 0;
        others += isOfACall ? 0 : 1;
    }
    for (const auto &[message, count] : counts) {
        fmt::print("{:5} x {}\n", count, message);
    }
    return others;
}

// Tells the parent when the server that it names has answered.
int RunClient(const Settings &settings, Channel &parent) {
    tarvo::IgnoreSigpipe();
    const tarvo_test::SyslogCapture log;
    Tally tally;
    std::atomic<bool> end{false};
    std::atomic<long> ups{0};
    std::atomic<long> downs{0};
    tarvo::Client client(
        settings.server, tarvo::Options().As("c"),
        tarvo::ClientOptions().OnUp([&](tarvo::PipeView) { ++ups; }).OnDown([&] { ++downs; }).Waits(1ms, 50ms));
    tarvo_test::Threads callers(settings.threads, [&](int number) { CallUntil(end, client, number, tally); });
    bool isWedged = false;
    // The parent says whose answer it wants next; another word ends the client.
    for (auto next = parent.Receive(); !isWedged && next && *next != "end"; next = parent.Receive()) {
        isWedged = !tally.AwaitAnswerBy(std::stoi(*next));
        parent.Send(isWedged ? "wedged" : "answered");
    }
    end = true;
    callers.Join();
    const double perKill = static_cast<double>(CountLines(log)) / settings.kills;
    fmt::print("{} kills: {} calls answered, {} refused while nobody served, {} broken off, {} timed out, {} wrong; "
               "{} connections, {} times down; {:.3f} log lines of other things a kill\n",
               settings.kills, tally.answered.load(), tally.away.load(), tally.broken.load(), tally.late.load(),
               tally.wrong.load(), ups.load(), downs.load(), perKill);
    const bool isRight = !isWedged && tally.wrong == 0 && ups >= settings.kills && perKill <= settings.linesPerKill;
    fflush(stdout);
    return isRight ? 0 : 1;
}

// Kills a server as soon as it has answered, each in a process of its own.
bool KillServers(const Settings &settings, ChildProcess &client) {
    for (int kill = 0; kill < settings.kills; ++kill) {
        ChildProcess server([&](Channel &) { return Serve(settings.server); });
        client.ToChild().Send(std::to_string(server.Pid()));
        if (client.ToChild().Receive() != "answered") {
            fmt::print("no answer after {} kills\n", kill);
            return false;
        }
        server.Kill();
        server.Wait();
    }
    client.ToChild().Send("end");
    return true;
}

void StayOnOneCore() {
    cpu_set_t all;
    CPU_ZERO(&all);
    sched_getaffinity(0, sizeof(all), &all);
    int first = 0;
    while (!CPU_ISSET(first, &all)) {
        ++first;
    }
    CPU_ZERO(&all);
    CPU_SET(first, &all);
    sched_setaffinity(0, sizeof(all), &all);
}

} // namespace

int main(int argc, char **argv) {
    Settings settings;
    storm::CommandLine line("Kills the server of a tarvo::Client again and again.");
    line.Option("--kills", settings.kills, "how often");
    line.Option("--threads", settings.threads, "that call");
    line.Option("--lines-per-kill", settings.linesPerKill,
                "log lines of the client that are not about broken calls, at most");
    line.Flag("--one-core", settings.isOneCore, "all processes on one processor");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    if (settings.isOneCore) {
        StayOnOneCore();
    }
    ChildProcess client([&](Channel &parent) { return RunClient(settings, parent); });
    const bool done = KillServers(settings, client);
    const int result = client.Wait();
    tarvo_test::RemoveOwnFifoFiles();
    return done && result == 0 ? 0 : 1;
}
