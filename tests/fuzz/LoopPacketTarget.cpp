// The packet reader of a service of the loop: garbage through its FIFO, beside an honest link of the same loop.
//
// Input: one byte that says in how many pieces, then the bytes as they go into the FIFO. A reader of its own, which
// gets the same pieces, tells from them which clients have announced themselves: for exactly those files appear, and a
// client that comes afterwards is served, unless the service was told to end.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "fuzz/Honest.h"
#include "fuzz/LoopSide.h"
#include "fuzz/NameRules.h"
#include "fuzz/PacketReader.h"
#include "fuzz/Target.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

// Longer than any packet: takes the reader to the beginning of the next one.
constexpr std::size_t PADDING = 160;
constexpr std::size_t LONGEST_PATH = 254;

class Visit {
public:
    Visit() {
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.request = [](void *, TarvoLink *remote, uint32_t request, TarvoBytes payload) {
            Require(TarvoLinkReply(remote, request, payload) == 0, "a request can be answered");
        };
        TarvoServiceOptions options = {};
        options.size = sizeof(options);
        options.name = name.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.context = this;
        options.client = [](void *context, TarvoService *, TarvoLink *link, const char *client) {
            auto &visit = *static_cast<Visit *>(context);
            visit.clients.emplace_back(client);
            TarvoLinkSetContext(link, nullptr);
        };
        options.callbacks = &callbacks;
        Require(TarvoServiceOpen(TheLoop(), &options, &service) == 0, "a service can be opened");
        fifo = OpenFifo();
        Require(fifo >= 0, "the service's FIFO has a reader");
    }
    ~Visit() { close(fifo); }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

    void Feed(const std::string &bytes) {
        for (std::size_t at = 0; at < bytes.size() && !reader.Terminated();) {
            const ssize_t written = write(fifo, bytes.data() + at, bytes.size() - at);
            Require(written > 0, "the service's FIFO is drained");
            reader.Read(bytes.substr(at, static_cast<std::size_t>(written)));
            at += static_cast<std::size_t>(written);
            TheHonestLink().Call();
            DispatchAll();
        }
    }

    void Finish() {
        Feed(std::string(PADDING, '\0'));
        Require(Files() == Expected(), "files appear for exactly the announced clients");
        if (reader.Terminated()) {
            Require(OpenFifo() < 0 && errno == ENXIO, "a service that was told to end does not read");
            Require(clients.empty(), "nobody has come");
        } else {
            Require(reader.AtBeginning(), "the padding ends every packet");
            Greet();
            Require(clients == std::vector<std::string>{self + "_" + std::to_string(getpid())},
                    "only who has come is told of");
        }
        Require(TarvoServiceClose(service) == 0, "a service can be closed");
        DispatchAll();
        Require(Files().empty(), "clients that are being opened are dropped");
    }

private:
    int OpenFifo() const { return open((FifoDirectory() + name).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC); }

    std::set<std::string> Expected() const {
        std::set<std::string> files;
        for (const std::string &client : reader.Names()) {
            // A name with a slash points into a directory that does not exist.
            if (IsAcceptableName(client) && client.find('/') == std::string::npos &&
                FifoPath(name, client).size() <= LONGEST_PATH) {
                files.insert(name + "__to__" + client);
                files.insert(client + "__to__" + name);
            }
        }
        return files;
    }

    // Those of pipes with this service.
    std::set<std::string> Files() const {
        std::set<std::string> files;
        const std::string to = "__to__" + name;
        for (const std::string &file : OwnFifoFiles()) {
            if (file.rfind(name + "__to__", 0) == 0 ||
                (file.size() > to.size() && file.substr(file.size() - to.size()) == to)) {
                files.insert(file);
            }
        }
        return files;
    }

    // A client that comes after the garbage is served.
    void Greet() {
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        int opened = 1;
        callbacks.opened = [](void *context, TarvoLink *, int result) { *static_cast<int *>(context) = result; };
        TarvoLink *const link = OpenLink(TARVO_LINK_TO_SERVER, name, self, callbacks, &opened);
        DispatchUntil([&opened] { return opened != 1; });
        Require(opened == 0, "a client that connects after the garbage is served");
        bool answered = false;
        Require(TarvoLinkCall(
                    link, {"hello", 5}, 60000,
                    [](void *context, int result, TarvoBytes) {
                        Require(result == 0, "and answered");
                        *static_cast<bool *>(context) = true;
                    },
                    &answered) > 0,
                "a call begins");
        DispatchUntil([&answered] { return answered; });
        Require(TarvoLinkClose(link) == 0, "a link can be closed");
        DispatchUntil(
            [this] { return access(FifoPath(name, self + "_" + std::to_string(getpid())).c_str(), F_OK) != 0; });
    }

    const std::string name = NameTag() + "visited";
    const std::string self = NameTag() + "newcomer";
    TarvoService *service = nullptr;
    int fifo = -1;
    PacketReader reader;
    std::vector<std::string> clients;
};

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    // As if for a debugger: however slow the machine is, the links that nobody opens stay until the files are counted.
    static const bool patient = setenv("KELDOR_RUN_MODE", "1", 1) == 0;
    Require(patient, "the environment can be changed");
    TheHonestLink().Call();
    static const std::size_t descriptors = DescriptorCount();
    Bytes input(data, size);
    const unsigned pieces = input.Byte();
    {
        Visit visit;
        InPieces(pieces, input.Rest(), [&visit](const std::string &piece) { visit.Feed(piece); });
        visit.Finish();
    }
    Await("every descriptor is closed", [] { return DescriptorCount() == descriptors; });
    return 0;
}
