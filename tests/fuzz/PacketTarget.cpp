// The packet reader of the server: garbage through its monitor FIFO.
//
// Input: one byte of options, then the bytes as they go into the FIFO. A reader of its own tells from them which
// clients the server must open a pipe for, and whether it is told to end: exactly those pipes are opened, in order, and
// a client that comes afterwards is served.
#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "fuzz/Honest.h"
#include "fuzz/LeftOvers.h"
#include "fuzz/NameRules.h"
#include "fuzz/PacketReader.h"
#include "fuzz/Target.h"
#include "support/Pipes.h"

namespace tarvo_test {
namespace {

// Longer than any packet: takes the reader to the beginning of the next one.
constexpr std::size_t PADDING = 160;

// The clients that the server has opened a pipe for; those that nobody stands behind are closed at once.
class Guests {
public:
    void Arrive(int handle, const std::string &name) {
        Require(handle > 0, "the open callback gets a handle");
        const std::lock_guard<std::mutex> lock(mutex);
        if (name == expected) {
            return;
        }
        names.push_back(name);
        TarvoClosePipe(handle);
    }
    void Expect(const std::string &name) {
        const std::lock_guard<std::mutex> lock(mutex);
        expected = name;
    }
    std::vector<std::string> Names() {
        const std::lock_guard<std::mutex> lock(mutex);
        return names;
    }
    void Forget() {
        const std::lock_guard<std::mutex> lock(mutex);
        names.clear();
    }

private:
    std::mutex mutex;
    std::string expected;
    std::vector<std::string> names;
};

Guests &TheGuests() {
    static auto *const guests = new Guests;
    return *guests;
}

const std::string &ServerName() {
    static const auto *const name = new std::string(UniqueName("server"));
    return *name;
}

int StartServer() {
    TarvoServerAttr attr;
    attr.selfName = ServerName().c_str();
    attr.callback = Echo;
    attr.openCallback = [](int handle, const char *name, uint32_t length) {
        TheGuests().Arrive(handle, std::string(name, length));
    };
    return TarvoCreateServer(&attr);
}

// An honest client of the server. `name` is its own for the whole run of the program.
int Connect(const std::string &name) {
    TheGuests().Expect(name + "_" + std::to_string(getpid()));
    TarvoAttr attr = MakeAttr(name, ServerName(), TARVO_MODE_CLIENT);
    const int handle = TarvoCreateClient(&attr);
    Require(handle > 0, "an honest client can connect");
    return handle;
}

// What one input does to the server.
class Visit {
public:
    explicit Visit(HonestClient &beside) : honest(beside), fifo(OpenServer()) {}
    ~Visit() { close(fifo); }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

    void Feed(const std::string &bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            const ssize_t written = write(fifo, bytes.data() + at, bytes.size() - at);
            Require(written > 0, "the server's FIFO is drained");
            reader.Read(bytes.substr(at, static_cast<std::size_t>(written)));
            if (reader.Terminated()) {
                RestartServer();
            }
            honest.CallWhileUnread(fifo, SIZE_MAX);
            at += static_cast<std::size_t>(written);
        }
    }

    void Finish() {
        Feed(std::string(PADDING, '\0'));
        Require(reader.AtBeginning(), "the padding ends every packet");
        static unsigned newcomers = 0;
        const int handle = Connect(NameTag() + "newcomer" + std::to_string(++newcomers));
        // The server answers on the thread that has read all of the garbage before.
        Require(Ask(handle, "hello") == "hello", "a client that connects after the garbage is served");
        Require(TarvoClosePipe(handle) == 0, "a pipe can be closed");
        Require(TheGuests().Names() == Openable(), "exactly the announced clients got their pipe");
    }

private:
    static int OpenServer() {
        const int fd = open((FifoDirectory() + ServerName()).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        Require(fd >= 0, "the server's FIFO has a reader");
        return fd;
    }

    // A server that was told to end by its FIFO can be started again, and serves then as it did.
    void RestartServer() {
        int result = 0;
        Await("a server that was told to end ends", [&result] { return (result = StartServer()) != -EEXIST; });
        Require(result == 0, "a server that has ended can be started again");
        reader.Restart();
        close(fifo);
        fifo = OpenServer();
    }

    std::vector<std::string> Openable() const {
        std::vector<std::string> openable;
        for (const std::string &name : reader.Names()) {
            // A name with a slash points into a directory that does not exist.
            if (IsAcceptableName(name) && name.find('/') == std::string::npos) {
                openable.push_back(name);
            }
        }
        return openable;
    }

    HonestClient &honest;
    PacketReader reader;
    int fifo;
};

HonestClient &TheHonestClientOfTheServer() {
    static auto *const client = [] {
        Require(StartServer() == 0, "a server can be started");
        return new HonestClient(Connect(UniqueName("honest")));
    }();
    return *client;
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    HonestClient &honest = TheHonestClientOfTheServer();
    honest.Call();
    static const LeftOvers before;
    TheGuests().Forget();
    Bytes input(data, size);
    const unsigned pieces = input.Byte();
    {
        Visit visit(honest);
        InPieces(pieces, input.Rest(), [&visit](const std::string &piece) { visit.Feed(piece); });
        visit.Finish();
    }
    before.AwaitNoOther();
    return 0;
}
