#include "system/ServerAgent.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

#include "support/Faults.h"
#include "support/SyslogCapture.h"
#include "support/Threads.h"
#include "tarvo.h"

namespace tarvo_test {
namespace {

constexpr int CALL_LIMIT_MS = 30000;

std::vector<std::string> SplitLines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string JoinLines(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

// ---- In the child ----

// What the callbacks, which are plain functions, share with the steps.
struct Seen {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> clients;
};

// Made before there are threads. Never destroyed: callbacks may run while the process exits.
Seen &seen = *new Seen;

void NoteClient(int, const char *peerName, uint32_t nameLength) {
    const std::lock_guard<std::mutex> lock(seen.mutex);
    seen.clients.emplace_back(peerName, nameLength);
    seen.changed.notify_all();
}

void Answer(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    std::string text = "re: " + std::string(request->data, request->size);
    TarvoResponse response{request->id, text.data(), static_cast<uint32_t>(text.size())};
    TarvoSendResponse(fd, &response);
}

int CreateServer(const std::string &server) {
    static auto *const names = new std::vector<std::unique_ptr<std::string>>; // must outlive the server
    names->push_back(std::make_unique<std::string>(server));
    TarvoServerAttr attr;
    attr.openCallback = NoteClient;
    attr.callback = Answer;
    attr.selfName = names->back()->c_str();
    return TarvoCreateServer(&attr);
}

int CreateClient(const std::string &server, const std::string &self, int timeoutMs) {
    TarvoAttr attr;
    attr.targetName = server.c_str();
    attr.selfName = self.c_str();
    attr.timeout = timeoutMs;
    return TarvoCreateClient(&attr);
}

std::string CallAndWait(int fd, std::string text, int timeoutMs) {
    TarvoRequest request{0, text.data(), static_cast<uint32_t>(text.size())};
    TarvoResponse response{};
    const int ret = TarvoTimedRPCSync(fd, &request, &response, timeoutMs);
    std::string answer = ret != 0 ? std::to_string(ret) : std::string(response.data, response.size);
    DestroyResponse(&response);
    return answer;
}

// "" or what went wrong.
std::string ConnectAndCall(const std::string &server, const std::string &self, int timeoutMs) {
    const int fd = CreateClient(server, self, timeoutMs);
    if (fd < 0) {
        return self + " was not connected: " + std::to_string(fd);
    }
    const std::string answer = CallAndWait(fd, self, timeoutMs);
    return answer == "re: " + self ? "" : self + " was answered " + answer;
}

class Agent {
public:
    explicit Agent(Channel &toTest) : channel(toTest) {
        steps = {
            {"serve",
             [this] { return setenv("KELDOR_RUN_MODE", second.c_str(), 0), std::to_string(CreateServer(first)); }},
            {"hold", [this] { return Hold(); }},
            {"resume", [this] { return Resume(); }},
            {"clients", [this] { return Clients(); }},
            {"finish", [] { return TarvoCfgFinishServer(), std::to_string(TarvoServiceIsExist()); }},
            {"fail", [] { return TarvoExceptionHandler(SIGSEGV), std::string(); }},
            {"connect", [this] { return std::to_string(CreateClient(first, second, number)); }},
            {"call", [this] { return CallAndWait(number, first, CALL_LIMIT_MS); }},
            {"close", [this] { return std::to_string(TarvoClosePipe(number)); }},
            {"swarm", [this] { return PrepareSwarm(); }},
            {"go", [this] { return go.set_value(), std::string(); }},
            {"result", [this] { return SwarmResult(); }},
            {"errors", [this] { return Errors(); }},
            {"await", [this] { return std::to_string(log.WaitFor(ANY_LEVEL, first).has_value()); }},
        };
    }

    void Run() {
        while (const std::optional<std::string> command = channel.Receive()) {
            if (*command == "exit") {
                std::exit(0);
            }
            first = channel.Receive().value_or("");
            second = channel.Receive().value_or("");
            number = std::atoi(channel.Receive().value_or("").c_str());
            third = channel.Receive().value_or("");
            channel.Send(steps.at(*command)());
        }
    }

private:
    std::string Hold() {
        std::promise<void> held;
        hook = std::make_unique<ScopedHook>(
            Call::Link,
            [this, &held](const CallInfo &) {
                held.set_value();
                resumed.get_future().wait();
            },
            Where().PathHas(first));
        serving = InBackground([server = first] { return CreateServer(server); });
        held.get_future().wait();
        return "";
    }

    std::string Resume() {
        resumed.set_value();
        const int ret = serving.get();
        hook.reset();
        return std::to_string(ret);
    }

    std::string Clients() const {
        std::unique_lock<std::mutex> lock(seen.mutex);
        seen.changed.wait(lock, [this] { return seen.clients.size() >= static_cast<std::size_t>(number); });
        return JoinLines(seen.clients);
    }

    std::string PrepareSwarm() {
        const std::shared_future<void> gone = go.get_future().share();
        const int clients = std::stoi(third);
        for (int i = 0; i < clients; ++i) {
            swarm.push_back(InBackground([gone, server = first, self = second + std::to_string(i), timeoutMs = number] {
                gone.wait();
                return ConnectAndCall(server, self, timeoutMs);
            }));
        }
        return "";
    }

    std::string SwarmResult() {
        std::vector<std::string> faults;
        for (std::future<std::string> &one : swarm) {
            const std::string fault = one.get();
            if (!fault.empty()) {
                faults.push_back(fault);
            }
        }
        swarm.clear();
        return JoinLines(faults);
    }

    std::string Errors() const {
        std::vector<std::string> messages;
        for (const LogLine &line : log.Lines()) {
            if (line.level <= LOG_ERR) {
                messages.push_back(line.message);
            }
        }
        return JoinLines(messages);
    }

    Channel &channel;
    std::map<std::string, std::function<std::string()>> steps;
    std::string first;
    std::string second;
    std::string third;
    int number = 0;
    SyslogCapture log;
    std::unique_ptr<ScopedHook> hook;
    std::promise<void> resumed;
    std::future<int> serving;
    std::promise<void> go;
    std::vector<std::future<std::string>> swarm;
};

int RunAgent(Channel &channel) {
    static Agent *const agent = new Agent(channel); // exit must not destroy what threads still use
    agent->Run();
    return 0;
}

} // namespace

// ---- In the test ----

ServerAgent::ServerAgent() : child(RunAgent) {}

std::string ServerAgent::Ask(const std::string &command, const std::string &first, const std::string &second,
                             int number, const std::string &third) {
    Channel &channel = child.ToChild();
    for (const std::string &text : {command, first, second, std::to_string(number), third}) {
        channel.Send(text);
    }
    const std::optional<std::string> answer = channel.Receive();
    EXPECT_TRUE(answer) << "process " << Pid() << " ended in \"" << command << "\"";
    return answer.value_or("");
}

int ServerAgent::Serve(const std::string &server, const std::string &mode) {
    return std::stoi(Ask("serve", server, mode));
}

void ServerAgent::ServeUpToPublication(const std::string &server) { Ask("hold", server); }

int ServerAgent::Resume() { return std::stoi(Ask("resume")); }

std::vector<std::string> ServerAgent::Clients(std::size_t atLeast) {
    return SplitLines(Ask("clients", "", "", static_cast<int>(atLeast)));
}

int ServerAgent::Finish() { return std::stoi(Ask("finish")); }

void ServerAgent::Fail() { Ask("fail"); }

int ServerAgent::Connect(const std::string &server, const std::string &self, int timeoutMs) {
    return std::stoi(Ask("connect", server, self, timeoutMs));
}

std::string ServerAgent::Call(int fd, const std::string &text) { return Ask("call", text, "", fd); }

int ServerAgent::ClosePipe(int fd) { return std::stoi(Ask("close", "", "", fd)); }

void ServerAgent::PrepareSwarm(const std::string &server, const std::string &self, unsigned clients, int timeoutMs) {
    Ask("swarm", server, self, timeoutMs, std::to_string(clients));
}

void ServerAgent::ReleaseSwarm() { Ask("go"); }

std::vector<std::string> ServerAgent::SwarmResult() { return SplitLines(Ask("result")); }

std::vector<std::string> ServerAgent::Errors() { return SplitLines(Ask("errors")); }

bool ServerAgent::AwaitLine(const std::string &part) { return Ask("await", part) == "1"; }

int ServerAgent::Exit() {
    child.ToChild().Send("exit");
    return child.Wait();
}

} // namespace tarvo_test
