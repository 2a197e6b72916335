// The functions that open: pipes in both modes, clients, servers.
#include "faults/OpenScenes.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "faults/Scenes.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

constexpr int CLIENT_TIMEOUT_MS = 500;
constexpr int BACKGROUND_TIMEOUT_MS = 30000;

// Both directions of an open pipe carry a message, and it can be closed: before the peer goes, or it would close by
// itself meanwhile.
void TalkAndClose(int fd, RawPeer &peer, Inbox &inbox) {
    peer.Send(RawRequest(1, "hello"));
    EXPECT_EQ(inbox.First(), "hello");
    EXPECT_EQ(SendText(fd, "back"), 0);
    EXPECT_EQ(peer.Receive().payload, "back");
    EXPECT_EQ(TarvoClosePipe(fd), 0);
}

// A pipe whose files this process creates.
class CreatingOpen : public Scene {
public:
    explicit CreatingOpen(int openTimeout) : timeout(openTimeout) {}

    int Act() override { return Open(); }

    void GoOn(int) override {
        const int fd = Open();
        ASSERT_GT(fd, 0);
        JoinedRawPeer peer(remote, self);
        TalkAndClose(fd, peer, inbox);
    }

protected:
    virtual int Open() {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, inbox.Receiver());
        attr.timeout = timeout;
        return TarvoOpen(&attr);
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    Inbox inbox;

private:
    const int timeout;
};

class TypedOpen : public CreatingOpen {
public:
    TypedOpen() : CreatingOpen(0) {}

private:
    int Open() override {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, inbox.Receiver());
        return TarvoPipeTypeOpen(&attr, TARVO_SERVER_PIPE);
    }
};

// The form without attributes, which takes the process's own name.
class ShortOpen : public Scene {
public:
    ShortOpen() { unsetenv("PROC_NAME"); }

    int Act() override { return Open(); }

    void GoOn(int) override {
        const int fd = Open();
        if (fd == -EINVAL) {
            return; // the name could not be read, which is tried only once in a process
        }
        ASSERT_GT(fd, 0);
        EXPECT_EQ(TarvoClosePipe(fd), 0);
    }

private:
    int Open() { return TarvoOpen(remote.c_str(), nullptr, 0, TARVO_MODE_SERVER); }

    const std::string remote = UniqueName("remote");
};

// A pipe whose files are there already.
class JoiningOpen : public Scene {
public:
    JoiningOpen() : JoiningOpen("") {}

    int Act() override { return Open(); }

    void GoOn(int) override {
        const int fd = Open();
        ASSERT_GT(fd, 0);
        peer.OpenWrite();
        TalkAndClose(fd, peer, inbox);
    }

protected:
    explicit JoiningOpen(const std::string &suffix) : peer(remote, self + suffix) { peer.CreateFiles(); }

    virtual int Open() {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT, inbox.Receiver());
        attr.timeout = CLIENT_TIMEOUT_MS;
        return TarvoOpen(&attr);
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    Inbox inbox;
    RawPeer peer;
};

// A pipe to a server, whose files appear once the client has announced itself: earlier ones would be leftovers.
class ClientOpen : public JoiningOpen {
public:
    ClientOpen() : JoiningOpen("_" + std::to_string(getpid())) { Move(files, hidden); }
    ~ClientOpen() override { Move(hidden, files); } // for the peer to remove

private:
    using Paths = std::array<std::string, 2>;

    // Does nothing the second time.
    static void Move(const Paths &from, const Paths &to) {
        for (std::size_t i = 0; i < from.size(); ++i) {
            std::rename(from[i].c_str(), to[i].c_str());
        }
    }

    int Open() override {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT, inbox.Receiver());
        attr.timeout = CLIENT_TIMEOUT_MS;
        return TarvoCreateClient(&attr);
    }

    const Paths files{peer.WriteFile(), peer.ReadFile()};
    const Paths hidden{files[0] + ".hidden", files[1] + ".hidden"};
    const RawServer server{remote};
    // With every write: the first may lack the memory for a hook.
    const ScopedHook announced{Call::Write, [this](const CallInfo &) { Move(hidden, files); }};
};

std::promise<std::string> *connected = nullptr;

class ServerStart : public Scene {
public:
    ServerStart() { connected = &client; }

    int Act() override { return Create(); }

    void GoOn(int result) override {
        EXPECT_EQ(Create(), result == 0 ? -EEXIST : 0);
        WriteToRawServer(name, RawConnectPacket(remote, 0xFFFFFFFFU, getpid()));
        JoinedRawPeer peer(remote, name);
        EXPECT_EQ(client.get_future().get(), remote);
        // The server leaves its file behind for the next one of its name, so only this removes it.
        TarvoExceptionHandler(0);
    }

    ~ServerStart() override { TarvoExceptionHandler(0); }

private:
    int Create() {
        TarvoServerAttr attr;
        attr.selfName = name.c_str();
        attr.openCallback = [](int, const char *peer, uint32_t length) { connected->set_value({peer, length}); };
        return TarvoCreateServer(&attr);
    }

    const std::string name = UniqueName("server");
    const std::string remote = UniqueName("remote");
    std::promise<std::string> client;
};

} // namespace

std::vector<Function> OpeningFunctions() {
    return {
        {"TarvoOpen, which creates the files", Returns::Handle, Making<CreatingOpen>(0)},
        {"TarvoOpen, with the write end opened in the background", Returns::Handle,
         Making<CreatingOpen>(BACKGROUND_TIMEOUT_MS)},
        {"TarvoOpen, whose remote has created the files", Returns::Handle, Making<JoiningOpen>()},
        {"TarvoOpen, short form", Returns::Handle, Making<ShortOpen>()},
        {"TarvoPipeTypeOpen", Returns::Handle, Making<TypedOpen>()},
        {"TarvoCreateClient", Returns::Handle, Making<ClientOpen>()},
        {"TarvoCreateServer", Returns::Code, Making<ServerStart>()},
    };
}

} // namespace tarvo_test
