// Loops, servers and links whose callbacks are written down, and a foreign loop that trusts their descriptor only.
#ifndef TARVO_TEST_LOOPKIT_H
#define TARVO_TEST_LOOPKIT_H

#include <gtest/gtest.h>
#include <poll.h>

#include <climits>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/LeakCheck.h"
#include "support/Names.h"
#include "tarvo_loop.h"

namespace tarvo_test {

constexpr int PATIENCE_MS = 60000;

inline TarvoBytes Bytes(const std::string &text) { return {text.data(), static_cast<uint32_t>(text.size())}; }
inline std::string Text(TarvoBytes bytes) { return bytes.size > 0 ? std::string(bytes.data, bytes.size) : ""; }

// Whether the loop's descriptor is readable within that time.
inline bool IsReadable(TarvoLoop *loop, int withinMs = 0) {
    pollfd fd{TarvoLoopFd(loop), POLLIN, 0};
    return poll(&fd, 1, withinMs) == 1;
}

// Dispatches as a foreign loop does, that is to say only while the descriptor is readable, until `condition` holds.
// False: it has not come true, and there is nothing more to do.
inline bool Until(TarvoLoop *loop, const std::function<bool()> &condition, int max = INT_MAX,
                  int patienceMs = PATIENCE_MS) {
    while (!condition()) {
        if (!IsReadable(loop, patienceMs)) {
            return false;
        }
        const int ran = TarvoLoopDispatch(loop, max);
        if (ran < 0 || ran > max) {
            ADD_FAILURE() << "Dispatch: " << ran;
            return false;
        }
    }
    return true;
}

// Dispatches until there is nothing to do any more.
inline void Drain(TarvoLoop *loop) {
    while (IsReadable(loop)) {
        ASSERT_GE(TarvoLoopDispatch(loop, INT_MAX), 0);
    }
}

// Writes down what the callbacks of links are called with, and calls those that a test has set.
struct Recorder {
    struct Request {
        TarvoLink *link;
        uint32_t number;
        std::string payload;
    };

    Recorder() {
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *link, int ended) {
            auto &self = *static_cast<Recorder *>(context);
            self.Note("opened " + std::to_string(ended));
            self.opened = true;
            self.result = ended;
            Call(self.onOpened, link);
        };
        callbacks.request = [](void *context, TarvoLink *link, uint32_t number, TarvoBytes payload) {
            auto &self = *static_cast<Recorder *>(context);
            self.Note("request " + Text(payload));
            self.requests.push_back({link, number, Text(payload)});
            if (self.onRequest) {
                self.onRequest(link, number, payload);
            }
        };
        callbacks.closed = [](void *context, TarvoLink *link) {
            auto &self = *static_cast<Recorder *>(context);
            self.Note("closed");
            ++self.closed;
            Call(self.onClosed, link);
        };
        callbacks.writable = [](void *context, TarvoLink *link) {
            auto &self = *static_cast<Recorder *>(context);
            self.Note("writable");
            ++self.writable;
            Call(self.onWritable, link);
        };
    }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    static void Call(const std::function<void(TarvoLink *)> &function, TarvoLink *link) {
        if (function) {
            function(link);
        }
    }
    void Note(const std::string &event) { events.push_back(event); }

    // The end of a call whose context is a recorder.
    static void Done(void *context, int ended, TarvoBytes answer) {
        auto &self = *static_cast<Recorder *>(context);
        self.Note("done " + std::to_string(ended) + (ended == 0 ? " " + Text(answer) : ""));
        ++self.done;
        if (self.onDone) {
            self.onDone(ended, Text(answer));
        }
    }

    TarvoLinkCallbacks callbacks{};
    std::vector<std::string> events;
    std::vector<Request> requests;
    bool opened = false;
    int result = INT_MIN;
    int closed = 0;
    int writable = 0;
    int done = 0;
    std::function<void(TarvoLink *)> onOpened;
    std::function<void(TarvoLink *, uint32_t, TarvoBytes)> onRequest;
    std::function<void(TarvoLink *)> onClosed;
    std::function<void(TarvoLink *)> onWritable;
    std::function<void(int, const std::string &)> onDone;
};

// A server whose clients' links share one recorder.
struct Server {
    Server(TarvoLoop *loop, const std::string &serverName, bool replace = false) : name(serverName) {
        TarvoServiceOptions options{};
        options.size = sizeof(options);
        options.name = name.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.replace = replace ? 1 : 0;
        options.context = this;
        options.client = [](void *context, TarvoService *, TarvoLink *link, const char *client) {
            auto &self = *static_cast<Server *>(context);
            TarvoLinkSetContext(link, &self.links);
            self.clients.push_back(link);
            self.links.Note(std::string("client ") + client);
            Recorder::Call(self.onClient, link);
        };
        options.callbacks = &links.callbacks;
        result = TarvoServiceOpen(loop, &options, &service);
    }
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    const std::string name;
    int result;
    TarvoService *service = nullptr;
    Recorder links;
    std::vector<TarvoLink *> clients;
    std::function<void(TarvoLink *)> onClient;
};

inline TarvoLinkOptions OptionsOf(Recorder &recorder, const std::string &target, TarvoLinkKind kind, int timeoutMs,
                                  const char *self) {
    TarvoLinkOptions options{};
    options.size = sizeof(options);
    options.kind = kind;
    options.target = target.c_str();
    options.self = self;
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.timeoutMs = timeoutMs;
    options.context = &recorder;
    options.callbacks = &recorder.callbacks;
    return options;
}

// Begins to open a link; null when that is refused.
inline TarvoLink *OpenLink(TarvoLoop *loop, Recorder &recorder, const std::string &target,
                           TarvoLinkKind kind = TARVO_LINK_TO_SERVER, int timeoutMs = PATIENCE_MS,
                           const std::string &self = "me") {
    const TarvoLinkOptions options = OptionsOf(recorder, target, kind, timeoutMs, self.c_str());
    TarvoLink *link = nullptr;
    EXPECT_EQ(TarvoLinkOpen(loop, &options, &link), 0);
    return link;
}

// A loop that lives as long as the test.
class LoopTest : public LeakCheckedTest {
protected:
    LoopTest() { EXPECT_EQ(TarvoLoopCreate(&loop), 0); }
    ~LoopTest() override { TarvoLoopDestroy(loop); }

    bool Wait(const std::function<bool()> &condition) { return Until(loop, condition); }

    TarvoLoop *loop = nullptr;
};

// A client's link to a server of the same loop.
class LinkTest : public LoopTest {
protected:
    LinkTest() : name(UniqueName("srv")), server(loop, name) {
        EXPECT_EQ(server.result, 0);
        link = OpenLink(loop, client, name, TARVO_LINK_TO_SERVER, PATIENCE_MS, UniqueName("cli"));
        EXPECT_TRUE(Wait([this] { return client.opened && !server.clients.empty(); }));
        EXPECT_EQ(client.result, 0);
        Drain(loop);
        remote = server.clients.empty() ? nullptr : server.clients.front();
    }

    const std::string name;
    Server server;
    Recorder client;
    TarvoLink *link = nullptr;   // the client's
    TarvoLink *remote = nullptr; // the server's
};

} // namespace tarvo_test

#endif // TARVO_TEST_LOOPKIT_H
