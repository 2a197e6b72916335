#include "faults/Functions.h"

#include <cerrno>
#include <csignal>
#include <optional>

#include "faults/OpenScenes.h"
#include "faults/Scenes.h"

namespace tarvo_test {
namespace {

constexpr int NO_ANSWER_MS = 50;

// An open pipe with a peer at its other end. The pipe has created the files.
class OpenPipe : public Scene {
public:
    void GoOn(int) override {
        EXPECT_EQ(SendText(fd, "once more"), 0);
        std::string text;
        do {
            text = peer.Receive().payload;
        } while (text != "once more");
        peer.Send(RawRequest(1, "hello"));
        EXPECT_EQ(inbox.First(), "hello");
    }

    ~OpenPipe() override {
        if (closeAtEnd) {
            TarvoClosePipe(fd); // before the peer goes, or it would close by itself meanwhile
        }
    }

protected:
    explicit OpenPipe(bool peerReads = true, bool close = true) : closeAtEnd(close) {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, inbox.Receiver());
        fd = TarvoOpen(&attr);
        peer.OpenRead();
        if (peerReads) {
            EXPECT_EQ(SendText(fd, "first"), 0);
        }
        peer.OpenWrite();
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    Inbox inbox;
    RawPeer peer{remote, self};
    int fd = -1;
    bool closeAtEnd;
};

class Send : public OpenPipe {
public:
    // A first one opens the write end.
    explicit Send(bool first) : OpenPipe(!first) {}
    int Act() override { return SendText(fd, "text"); }
};

class Answer : public OpenPipe {
public:
    int Act() override { return AnswerText(fd, "text"); }
};

// A call that its own process answers, at the other end of the pipe. Both ends are open before.
class OwnCall : public Scene {
public:
    explicit OwnCall(int callTimeout) : timeout(callTimeout) { EXPECT_EQ(Ask(pair.far, "warm"), "warm"); }

    int Act() override {
        std::string text = "text";
        TarvoRequest request{0, text.data(), 4};
        TarvoResponse response{};
        const int ret = timeout < 0 ? TarvoRPCSync(pair.far, &request, &response)
                                    : TarvoTimedRPCSync(pair.far, &request, &response, timeout);
        EXPECT_EQ(response.data == nullptr, ret != 0);
        DestroyResponse(&response);
        return ret;
    }

    void GoOn(int) override { EXPECT_EQ(Ask(pair.far, "again"), "again"); }

private:
    const PipePair pair{Echo};
    const int timeout;
};

class Close : public OpenPipe {
public:
    int Act() override { return TarvoClosePipe(fd); }

    void GoOn(int) override {
        EXPECT_EQ(TarvoClosePipe(fd), 0);
        EXPECT_EQ(SendText(fd, "too late"), -ENOENT);
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, inbox.Receiver());
        fd = TarvoOpen(&attr);
        EXPECT_GT(fd, 0);
        RawPeer next(remote, self);
        next.OpenBoth();
        EXPECT_EQ(SendText(fd, "anew"), 0);
        EXPECT_EQ(next.Receive().payload, "anew");
        EXPECT_EQ(TarvoClosePipe(fd), 0);
    }
};

// Of a pipe whose files the peer has created.
class Clean : public Scene {
public:
    Clean() {
        peer.CreateFiles();
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
        fd = TarvoOpen(&attr);
        EXPECT_GT(fd, 0);
        peer.OpenWrite();
    }

    int Act() override { return TarvoCleanPipe(fd); }

    void GoOn(int) override {
        EXPECT_EQ(TarvoCleanPipe(fd), 0);
        EXPECT_TRUE(OwnFifoFiles().empty());
        EXPECT_EQ(SendText(fd, "still"), 0);
        EXPECT_EQ(peer.Receive().payload, "still");
    }

    ~Clean() override {
        TarvoClosePipe(fd);
        TarvoCleanPipe(fd);
    }

private:
    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    RawPeer peer{remote, self};
    int fd = -1;
};

// A pipe and a server to bring to an end.
class End : public OpenPipe {
public:
    explicit End(void (*endFunction)()) : OpenPipe(true, false), end(endFunction) {
        EXPECT_EQ(CreateServer(server), 0);
    }

    int Act() override {
        end();
        return 0;
    }

    void GoOn(int) override {
        TarvoCfgFinishServer();
        EXPECT_EQ(TarvoServiceIsExist(), 0);
        EXPECT_EQ(SendText(fd, "too late"), -ENOENT);
        TarvoExceptionHandler(SIGTERM);
        EXPECT_TRUE(OwnFifoFiles().size() <= 2);
    }

    ~End() override {
        // Nothing else removes a server's file.
        TarvoExceptionHandler(SIGTERM);
    }

private:
    void (*const end)();
    const std::string server = UniqueName("server");
};

// Functions that only look, and find `expected`.
class Look : public Scene {
public:
    Look(std::function<int()> lookFunction, int right) : look(std::move(lookFunction)), expected(right) {}
    int Act() override { return look(); }
    void GoOn(int) override { EXPECT_EQ(look(), expected); }

private:
    const std::function<int()> look;
    const int expected;
};

class RemoteName : public OpenPipe {
public:
    int Act() override {
        char name[101];
        const int ret = TarvoGetRemoteName(fd, name, sizeof(name));
        EXPECT_TRUE(ret != 0 || name == remote);
        return ret;
    }
};

class Destroy : public Scene {
public:
    int Act() override {
        DestroyResponse(&response);
        return 0;
    }
    void GoOn(int) override {
        EXPECT_EQ(response.data, nullptr);
        DestroyResponse(&response);
    }

private:
    TarvoResponse response{1, new char[4], 4};
};

// Both ends of a pipe are opened in this process and a call goes through them.
class PairOfPipes : public Scene {
public:
    int Act() override {
        pair.emplace(Echo);
        return ResultOf(Ask(pair->far, "text", NO_ANSWER_MS));
    }

    void GoOn(int) override {
        pair.reset();
        const PipePair fresh(Echo);
        EXPECT_EQ(Ask(fresh.far, "again"), "again");
    }

    static int ResultOf(const std::string &answer) {
        return answer.rfind("error ", 0) == 0 ? std::stoi(answer.substr(6)) : 0;
    }

private:
    std::optional<PipePair> pair;
};

// A client connects to the server of this process and calls it.
class ClientOfOwnServer : public Scene {
public:
    int Act() override {
        const int ret = Serve();
        return ret < 0 ? ret : Connect(NO_ANSWER_MS, NO_ANSWER_MS);
    }

    void GoOn(int) override {
        TarvoClosePipe(fd);
        const int ret = Serve();
        EXPECT_TRUE(ret == 0 || ret == -EEXIST) << ret;
        self = UniqueName("self");
        // The server's thread may have ended just now; then there is one more to start.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (Connect(500, 500) != 0) {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            TarvoClosePipe(fd);
            Serve();
        }
    }

    ~ClientOfOwnServer() override { TarvoExceptionHandler(SIGTERM); }

private:
    int Serve() {
        TarvoServerAttr attr;
        attr.selfName = server.c_str();
        attr.callback = Echo;
        return TarvoCreateServer(&attr);
    }

    int Connect(int openTimeout, int callTimeout) {
        TarvoAttr attr = MakeAttr(self, server, TARVO_MODE_CLIENT);
        attr.timeout = openTimeout;
        fd = TarvoCreateClient(&attr);
        return fd < 0 ? fd : PairOfPipes::ResultOf(Ask(fd, "text", callTimeout));
    }

    std::string self = UniqueName("self");
    const std::string server = UniqueName("server");
    int fd = -1;
};

} // namespace

const std::vector<Function> &ExportedFunctions() {
    static const auto *const functions = [] {
        auto *const all = new std::vector<Function>(OpeningFunctions());
        const std::vector<Function> others = {
            {"TarvoSendRequest, the first of a pipe", Returns::Code, Making<Send>(true)},
            {"TarvoSendRequest", Returns::Code, Making<Send>(false)},
            {"TarvoSendResponse", Returns::Code, Making<Answer>()},
            {"TarvoTimedRPCSync", Returns::Code, Making<OwnCall>(PIPE_OPEN_TIMEOUT_MS)},
            {"TarvoRPCSync", Returns::Code, Making<OwnCall>(-1)},
            {"TarvoClosePipe", Returns::Code, Making<Close>()},
            {"TarvoCleanPipe", Returns::Code, Making<Clean>()},
            {"TarvoGetRemoteName", Returns::Code, Making<RemoteName>()},
            {"TarvoCfgFinishServer", Returns::Nothing, Making<End>(&TarvoCfgFinishServer)},
            {"TarvoExceptionHandler", Returns::Nothing, Making<End>([] { TarvoExceptionHandler(SIGTERM); })},
            {"TarvoServiceIsExist", Returns::Nothing, Making<Look>(&TarvoServiceIsExist, 1)},
            {"DestroyResponse", Returns::Nothing, Making<Destroy>()},
            {"GetCurrDomain", Returns::Nothing,
             Making<Look>([] { return static_cast<int>(GetCurrDomain()); }, TARVO_DOMAIN_DP)},
            {"IsOrlaDomainPipe", Returns::Nothing,
             Making<Look>([] { return IsOrlaDomainPipe(TARVO_DOMAIN_ORLA) ? 1 : 0; }, 0)},
            {"IsCrossDomainPipe", Returns::Nothing,
             Making<Look>([] { return IsCrossDomainPipe(TARVO_DOMAIN_ORLA) ? 1 : 0; }, 1)},
            {"NuroCoreSetaffinity", Returns::Nothing,
             Making<Look>(
                 [] {
                     NuroCoreSetaffinity();
                     return 0;
                 },
                 0)},
        };
        all->insert(all->end(), others.begin(), others.end());
        return all;
    }();
    return *functions;
}

const std::vector<Function> &CallsThroughThreads() {
    static const auto *const functions = new std::vector<Function>{
        {"both ends of a pipe and a call", Returns::Code, Making<PairOfPipes>()},
        {"a server, a client of it and a call", Returns::Code, Making<ClientOfOwnServer>()},
    };
    return *functions;
}

} // namespace tarvo_test
