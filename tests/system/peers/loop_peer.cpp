// The peer program of the system tests once more, over the loop: one thread, which waits for commands and for the loop
// in one poll. It obeys the line protocol of tests/system/peers/peer.cpp with the results that a program over the other
// engine would give.
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include "system/Payload.h"
#include "system/peers/Line.h"
#include "tarvo_loop.h"

using namespace tarvo_test;

namespace {

TarvoLoop *loop = nullptr;

struct Waiting {
    uint32_t request;
    std::string answer;
};

struct Link {
    int number = 0;
    TarvoLink *link = nullptr;
    std::string callback;
    bool ours = true;            // a service's is closed by the library
    bool ended = false;          // opened, or failed
    int result = 0;              // of the open
    std::deque<Waiting> waiting; // replies for which there was no room
};

std::map<int, std::shared_ptr<Link>> links;
int nextLink = 2;
std::deque<std::string> callbacks; // of services, which outlive their options
std::deque<TarvoService *> services;

TarvoBytes View(const std::string &bytes) { return {bytes.data(), static_cast<uint32_t>(bytes.size())}; }

std::shared_ptr<Link> Add(const std::string &callback) {
    auto added = std::make_shared<Link>();
    added->number = nextLink++;
    added->callback = callback;
    links[added->number] = added;
    return added;
}

Link &Of(void *context) { return *static_cast<Link *>(context); }

void WriteWaiting(Link &link) {
    while (!link.waiting.empty()) {
        const Waiting &first = link.waiting.front();
        const int result = TarvoLinkReply(link.link, first.request, View(first.answer));
        if (result == -EAGAIN) {
            return;
        }
        if (result != 0) {
            PrintEvent("unanswered fd=" + std::to_string(link.number) + " result=" + std::to_string(result));
        }
        link.waiting.pop_front();
    }
}

void OnOpened(void *context, TarvoLink *, int result) {
    Of(context).ended = true;
    Of(context).result = result;
}

void OnRequest(void *context, TarvoLink *, uint32_t request, TarvoBytes payload) {
    Link &link = Of(context);
    const std::string text(payload.data, payload.size);
    if (link.callback == "echo") {
        link.waiting.push_back({request, text});
        WriteWaiting(link);
    } else if (link.callback != "none" && !link.callback.empty()) {
        PrintEvent("request fd=" + std::to_string(link.number) + " id=" + std::to_string(request) + " " + Digest(text));
    }
}

void OnClosed(void *context, TarvoLink *) {
    Link &link = Of(context);
    const int number = link.number;
    if (link.ours) {
        TarvoLinkClose(link.link);
    }
    links.erase(number);
    PrintEvent("gone fd=" + std::to_string(number));
}

void OnWritable(void *context, TarvoLink *) { WriteWaiting(Of(context)); }

TarvoLinkCallbacks Callbacks() {
    TarvoLinkCallbacks all = {};
    all.size = sizeof(all);
    all.opened = OnOpened;
    all.request = OnRequest;
    all.closed = OnClosed;
    all.writable = OnWritable;
    return all;
}

void OnClient(void *context, TarvoService *, TarvoLink *link, const char *name) {
    const std::shared_ptr<Link> added = Add(*static_cast<std::string *>(context));
    added->link = link;
    added->ours = false;
    added->ended = true;
    TarvoLinkSetContext(link, added.get());
    PrintEvent("client fd=" + std::to_string(added->number) + " name=" + name);
}

// Sleeps on the loop, and on the commands when they are wanted; whether there is one.
bool Wait(bool commands) {
    pollfd entries[] = {{TarvoLoopFd(loop), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    poll(entries, commands ? 2 : 1, -1);
    if ((entries[0].revents & POLLIN) != 0) {
        TarvoLoopDispatch(loop, 64);
    }
    return commands && entries[1].revents != 0;
}

void WaitFor(const std::function<bool()> &condition) {
    while (!condition()) {
        Wait(false);
    }
}

std::string Serve(const Command &command) {
    const std::string self = command.Text("self");
    callbacks.push_back(command.Text("callback"));
    const TarvoLinkCallbacks all = Callbacks();
    TarvoServiceOptions options = {};
    options.size = sizeof(options);
    options.name = command.Has("self") ? self.c_str() : nullptr;
    options.gid = static_cast<uint32_t>(command.Number("gid", -1));
    options.replace = command.Number("replace");
    options.context = &callbacks.back();
    options.client = OnClient;
    options.callbacks = &all;
    TarvoService *service = nullptr;
    const int result = TarvoServiceOpen(loop, &options, &service);
    if (result == 0) {
        services.push_back(service);
    }
    return std::to_string(result);
}

// The side that creates the files does not wait for the other, as with the other engine.
std::string OpenAs(const Command &command, TarvoLinkKind kind) {
    const std::string target = command.Text("target");
    const std::string self = command.Text("self");
    const std::shared_ptr<Link> link = Add(command.Text("callback"));
    const TarvoLinkCallbacks all = Callbacks();
    TarvoLinkOptions options = {};
    options.size = sizeof(options);
    options.kind = kind;
    options.target = command.Has("target") ? target.c_str() : nullptr;
    options.self = command.Has("self") ? self.c_str() : nullptr;
    options.gid = static_cast<uint32_t>(command.Number("gid", -1));
    options.timeoutMs = command.Number("timeout");
    options.context = link.get();
    options.callbacks = &all;
    int result = TarvoLinkOpen(loop, &options, &link->link);
    if (result == 0 && kind == TARVO_LINK_ARRANGED_SERVER) {
        return std::to_string(link->number);
    }
    if (result == 0) {
        WaitFor([&] { return link->ended; });
        result = link->result;
    }
    if (result != 0) {
        TarvoLinkClose(link->link);
        links.erase(link->number);
        return std::to_string(result);
    }
    return std::to_string(link->number);
}

std::string Open(const Command &command) {
    return OpenAs(command, command.Number("mode") == 1 ? TARVO_LINK_ARRANGED_SERVER : TARVO_LINK_ARRANGED_CLIENT);
}

std::string Client(const Command &command) { return OpenAs(command, TARVO_LINK_TO_SERVER); }

// The link of a command once it is open; none: there is no such link.
std::shared_ptr<Link> Find(const Command &command) {
    const auto found = links.find(command.Number("fd"));
    if (found == links.end()) {
        return nullptr;
    }
    const std::shared_ptr<Link> link = found->second;
    WaitFor([&] { return link->ended; });
    return link;
}

std::string Send(const Command &command) {
    const std::shared_ptr<Link> link = Find(command);
    int result = link == nullptr ? -ENOENT : 0;
    const std::string payload = command.Payload();
    for (int i = 0; i < command.Number("times", 1) && result == 0; ++i) {
        result = TarvoLinkSend(link->link, View(payload));
    }
    return std::to_string(result);
}

std::string FillUp(const Command &command) {
    const std::shared_ptr<Link> link = Find(command);
    const std::string payload = command.Payload();
    int count = 0;
    int result = link == nullptr ? -ENOENT : 0;
    while (result == 0 && count < 100000) {
        result = TarvoLinkSend(link->link, View(payload));
        count += result == 0 ? 1 : 0;
    }
    return std::to_string(count) + " " + std::to_string(result);
}

std::string Respond(const Command &command) {
    const std::shared_ptr<Link> link = Find(command);
    if (link == nullptr) {
        return std::to_string(-ENOENT);
    }
    const std::string payload = command.Payload();
    return std::to_string(
        TarvoLinkReply(link->link, static_cast<uint32_t>(std::stoul(command.Text("id"))), View(payload)));
}

struct Call {
    Command command;
    std::function<void(const std::string &)> done;
};

void OnDone(void *context, int result, TarvoBytes bytes) {
    const std::unique_ptr<Call> call(static_cast<Call *>(context));
    const std::string answer = bytes.data == nullptr ? "" : std::string(bytes.data, bytes.size);
    std::string text = std::to_string(result);
    if (result == 0) {
        text += " " + (call->command.Has("text") ? answer : Digest(answer));
    }
    call->done(text);
}

void Begin(const Command &command, const std::function<void(const std::string &)> &done) {
    const std::shared_ptr<Link> link = Find(command);
    if (link == nullptr) {
        done(std::to_string(-ENOENT));
        return;
    }
    auto call = std::make_unique<Call>(Call{command, done});
    const std::string payload = command.Payload();
    const int64_t id = TarvoLinkCall(link->link, View(payload), command.Number("timeout", -1), OnDone, call.get());
    if (id > 0) {
        static_cast<void>(call.release());
    } else {
        done(std::to_string(id));
    }
}

// The form that waits, where nothing else may arrive meanwhile.
std::string CallBlocking(const Command &command) {
    const std::shared_ptr<Link> link = Find(command);
    if (link == nullptr) {
        return std::to_string(-ENOENT);
    }
    const std::string payload = command.Payload();
    char room[TARVO_LOOP_MAX_PAYLOAD];
    uint32_t size = sizeof(room);
    const int result = TarvoLinkCallSync(link->link, View(payload), command.Number("timeout", -1), room, &size);
    const std::string answer = result == 0 ? std::string(room, size) : "";
    return std::to_string(result) +
           (result == 0 ? " " + (command.Has("text") ? answer : Digest(answer)) : std::string());
}

std::string CallOut(const Command &command) {
    // Calls of both sides at the same time would wait for each other in the blocking form.
    if (std::getenv("LOOP_PEER_BLOCKING") != nullptr) {
        return CallBlocking(command);
    }
    std::string text;
    Begin(command, [&text](const std::string &result) { text = result; });
    WaitFor([&text] { return !text.empty(); });
    return text;
}

std::string Start(const Command &command) {
    Begin(command, [tag = command.Text("tag")](const std::string &result) {
        PrintEvent("called tag=" + tag + " result=" + result);
    });
    return "0";
}

// Calls until one fails, over and over; prints how many were answered rightly, and the failure.
void CallAgain(const Command &command, int count) {
    Begin(command, [command, count](const std::string &result) {
        const std::string tag = command.Text("tag");
        if (result != "0 " + Digest(command.Payload())) {
            PrintEvent("stopped tag=" + tag + " count=" + std::to_string(count) + " result=" + result);
            return;
        }
        if (count == 0) {
            PrintEvent("calling tag=" + tag);
        }
        CallAgain(command, count + 1);
    });
}

std::string CallOn(const Command &command) {
    CallAgain(command, 0);
    return "0";
}

std::string Close(const Command &command) {
    const auto found = links.find(command.Number("fd"));
    if (found != links.end()) {
        TarvoLinkClose(found->second->link);
        links.erase(found);
    }
    return "0";
}

std::string Obey(const Command &command) {
    static const auto *const words = new std::map<std::string, std::string (*)(const Command &)>{
        {"open", Open},       {"client", Client}, {"serve", Serve}, {"send", Send},     {"fillup", FillUp},
        {"respond", Respond}, {"call", CallOut},  {"start", Start}, {"callon", CallOn}, {"close", Close},
    };
    const auto word = words->find(command.Word());
    return word == words->end() ? "usage" : word->second(command);
}

// The commands that have come so far; false at the end of them.
bool ObeyAll(std::string &unread) {
    char bytes[4096];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
    if (count <= 0) {
        return false;
    }
    unread.append(bytes, static_cast<std::size_t>(count));
    for (std::size_t end = unread.find('\n'); end != std::string::npos; end = unread.find('\n')) {
        const Command command(unread.substr(0, end));
        unread.erase(0, end + 1);
        PrintLine("= " + Obey(command));
    }
    return true;
}

} // namespace

int main() {
    // A remote that is gone is reported by the result of the call, not by a signal.
    std::signal(SIGPIPE, SIG_IGN);
    if (TarvoLoopCreate(&loop) != 0) {
        return EXIT_FAILURE;
    }
    PrintEvent("ready");
    std::string unread;
    while (!Wait(true) || ObeyAll(unread)) {
    }
    TarvoLoopDestroy(loop);
    return EXIT_SUCCESS;
}
