// A program that uses the library as any user does, through tarvo.h alone, and is told what to do line by line.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <iostream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "system/Payload.h"
#include "system/peers/Callbacks.h"
#include "system/peers/Ending.h"
#include "system/peers/Line.h"
#include "tarvo.h"

using namespace tarvo_test;

namespace {

std::vector<std::thread> *const backgroundThreads = new std::vector<std::thread>;

// The strings of an attribute, alive as long as it is.
struct OpenArguments {
    explicit OpenArguments(const Command &command)
        : target(command.Text("target")), self(command.Text("self")), context(command.Text("context")) {
        attr.targetName = command.Has("target") ? target.c_str() : nullptr;
        attr.selfName = command.Has("self") ? self.c_str() : nullptr;
        attr.targetCon = command.Has("context") ? context.c_str() : nullptr;
        attr.timeout = command.Number("timeout");
        attr.mode = static_cast<TarvoMode>(command.Number("mode"));
        attr.gid = static_cast<uint32_t>(command.Number("gid", -1));
        attr.priority = static_cast<TarvoPriority>(command.Number("priority", TARVO_PRIORITY_NORMAL));
        attr.targetPid = command.Number("pid", -1);
        attr.isConcur = command.Number("concur") != 0;
        attr.domain = static_cast<TarvoDomain>(command.Number("domain"));
        if (const RequestCallback callback = CallbackNamed(command.Text("callback"))) {
            attr.callback = callback;
        }
    }
    std::string target;
    std::string self;
    std::string context;
    TarvoAttr attr;
};

std::string Open(const Command &command) {
    OpenArguments arguments(command);
    return std::to_string(TarvoOpen(&arguments.attr));
}

std::string OpenShort(const Command &command) {
    return std::to_string(TarvoOpen(command.Text("target").c_str(), CallbackNamed(command.Text("callback")),
                                    command.Number("timeout"), static_cast<TarvoMode>(command.Number("mode"))));
}

// The side that closed a pipe removes its file last, and may so remove the one of the next pipe when that comes at
// once: the server then gives the pipe up after 2 s, and another attempt succeeds.
int Reconnect(const Command &command) {
    OpenArguments arguments(command);
    arguments.attr.timeout = 3000;
    int result = -ETIMEDOUT;
    for (int i = 0; i < 5 && result == -ETIMEDOUT; ++i) {
        result = TarvoCreateClient(&arguments.attr);
    }
    return result;
}

std::string Client(const Command &command) {
    OpenArguments arguments(command);
    if (command.Text("callback") == "reopen") {
        ReopenWith([command] { return Reconnect(command); });
    }
    return std::to_string(TarvoCreateClient(&arguments.attr));
}

void OnClient(int fd, const char *name, uint32_t length) {
    PrintEvent("client fd=" + std::to_string(fd) + " name=" + std::string(name, length));
}

std::string Serve(const Command &command) {
    // The server keeps the pointer to its name.
    static std::deque<std::string> *const names = new std::deque<std::string>;
    names->push_back(command.Text("self"));
    TarvoServerAttr attr;
    attr.openCallback = command.Has("quiet") ? nullptr : OnClient;
    attr.callback = CallbackNamed(command.Text("callback"));
    attr.gid = static_cast<uint32_t>(command.Number("gid", -1));
    attr.priority = static_cast<TarvoPriority>(command.Number("priority", TARVO_PRIORITY_NORMAL));
    attr.selfName = command.Has("self") ? names->back().c_str() : nullptr;
    return std::to_string(TarvoCreateServer(&attr));
}

// A request over bytes that the caller keeps.
TarvoRequest RequestOf(const Command &command, std::string *payload) {
    *payload = command.Payload();
    return {static_cast<uint32_t>(command.Number("id")), command.Has("null") ? nullptr : &(*payload)[0],
            static_cast<uint32_t>(payload->size())};
}

std::string Send(const Command &command) {
    std::string payload;
    TarvoRequest request = RequestOf(command, &payload);
    int result = 0;
    for (int i = 0; i < command.Number("times", 1) && result == 0; ++i) {
        result = TarvoSendRequest(command.Number("fd"), &request);
        request.id += 1;
    }
    return std::to_string(result);
}

// Sends until it is refused: the number of requests that went, and the refusal.
std::string FillUp(const Command &command) {
    std::string payload;
    TarvoRequest request = RequestOf(command, &payload);
    int count = 0;
    int result = 0;
    while (result == 0 && count < 100000) {
        request.id = static_cast<uint32_t>(count);
        result = TarvoSendRequest(command.Number("fd"), &request);
        count += result == 0 ? 1 : 0;
    }
    return std::to_string(count) + " " + std::to_string(result);
}

std::string Respond(const Command &command) {
    std::string payload = command.Payload();
    TarvoResponse response = {static_cast<uint32_t>(command.Number("id")), &payload[0],
                              static_cast<uint32_t>(payload.size())};
    return std::to_string(TarvoSendResponse(command.Number("fd"), &response));
}

// Result, and what came back; an answer of letters is shown as it is.
std::string Call(const Command &command) {
    std::string payload;
    TarvoRequest request = RequestOf(command, &payload);
    const int fd = command.Number("fd");
    if (command.Has("noresponse")) {
        return std::to_string(TarvoTimedRPCSync(fd, &request, nullptr, command.Number("timeout", -1)));
    }
    TarvoResponse response = {};
    const int result = command.Has("timeout") ? TarvoTimedRPCSync(fd, &request, &response, command.Number("timeout"))
                                              : TarvoRPCSync(fd, &request, &response);
    std::string text = std::to_string(result);
    if (response.data != nullptr && result == 0) {
        const std::string answer(response.data, response.size);
        text += response.id == request.id ? " " : " wrong-id ";
        text += command.Has("text") ? answer : Digest(answer);
    }
    DestroyResponse(&response);
    return text;
}

// Calls until one fails, over and over; prints how many were answered rightly, and the failure.
void CallOn(const Command &command) {
    const std::string tag = command.Text("tag");
    const std::string right = "0 " + Digest(command.Payload());
    int count = 0;
    std::string result = Call(command);
    for (; result == right; result = Call(command)) {
        if (++count == 1) {
            PrintEvent("calling tag=" + tag);
        }
    }
    PrintEvent("stopped tag=" + tag + " count=" + std::to_string(count) + " result=" + result);
}

std::string InBackground(const Command &command) {
    if (command.Word() == "callon") {
        backgroundThreads->emplace_back([command] { CallOn(command); });
    } else {
        backgroundThreads->emplace_back(
            [command] { PrintEvent("called tag=" + command.Text("tag") + " result=" + Call(command)); });
    }
    return "0";
}

// Ends like a program with a wild pointer, whose handler cleans up first.
void OnFatalSignal(int signo) {
    TarvoExceptionHandler(signo);
    std::signal(signo, SIG_DFL);
    raise(signo);
}

std::string Crash(const Command &) {
    std::signal(SIGSEGV, OnFatalSignal);
    void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char *>(page) = 1;
    return "still alive";
}

std::string Close(const Command &command) { return std::to_string(TarvoClosePipe(command.Number("fd"))); }

std::string Clean(const Command &command) { return std::to_string(TarvoCleanPipe(command.Number("fd"))); }

std::string Finish(const Command &) {
    TarvoCfgFinishServer();
    return "0";
}

std::string FinishInBackground(const Command &) {
    backgroundThreads->emplace_back([] {
        TarvoCfgFinishServer();
        PrintEvent("finished");
    });
    return "0";
}

std::string Handler(const Command &command) {
    TarvoExceptionHandler(command.Number("signo"));
    return "0";
}

std::string Exist(const Command &) { return std::to_string(TarvoServiceIsExist()); }

std::string GatePermits(const Command &command) {
    OpenGate(command.Number("permits", 1));
    return "0";
}

std::string SetForward(const Command &command) {
    ForwardTo(command.Number("fd"), command.Number("timeout", -1));
    return "0";
}

std::string Echoed(const Command &) { return std::to_string(EchoCount()); }

// Nobody will join them: they are in the middle of calls when the process ends.
void LetGoOfThreads() {
    for (std::thread &thread : *backgroundThreads) {
        thread.detach();
    }
}

std::string EndNow(const Command &command) {
    LetGoOfThreads();
    return End(command);
}

std::string Obey(const Command &command) {
    static const std::map<std::string, std::string (*)(const Command &)> *const words =
        new std::map<std::string, std::string (*)(const Command &)>{
            {"open", Open},           {"openshort", OpenShort}, {"client", Client},
            {"serve", Serve},         {"send", Send},           {"fillup", FillUp},
            {"respond", Respond},     {"call", Call},           {"start", InBackground},
            {"callon", InBackground}, {"crash", Crash},         {"close", Close},
            {"clean", Clean},         {"finish", Finish},       {"finishing", FinishInBackground},
            {"handler", Handler},     {"exist", Exist},         {"gate", GatePermits},
            {"forward", SetForward},  {"echoed", Echoed},       {"end", EndNow},
        };
    const auto word = words->find(command.Word());
    return word == words->end() ? "usage" : word->second(command);
}

} // namespace

int main() {
    // A remote that is gone is reported by the result of the call, not by a signal.
    std::signal(SIGPIPE, SIG_IGN);
    PrintEvent("ready");
    for (std::string line; std::getline(std::cin, line);) {
        if (line.compare(0, std::strlen(RETURN_COMMAND), RETURN_COMMAND) == 0) {
            LetGoOfThreads();
            return 0;
        }
        PrintLine("= " + Obey(Command(line)));
    }
    for (std::thread &thread : *backgroundThreads) {
        thread.join();
    }
    return 0;
}
