// The frame reader: garbage through a real FIFO into a pipe that the receive thread watches.
//
// Input: one byte of options, then the bytes as they go into the FIFO. A reader of its own tells from them what must be
// delivered: exactly that arrives, in order, and the call that waits on the pipe ends with the response meant for it.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "api/TableFactory.h"
#include "fuzz/FrameModel.h"
#include "fuzz/Honest.h"
#include "fuzz/Target.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"
#include "table/TarvoTable.h"

namespace tarvo_test {
namespace {

using Delivered = std::pair<uint32_t, std::string>;

// What a worker, the cache of a pipe without a callback, and the callbacks of a concurrent pipe hold at most.
constexpr std::size_t WORKER_ROOM = 1000;
constexpr std::size_t CACHE_ROOM = 1000;
constexpr std::size_t CONCURRENT_ROOM = 200;
constexpr uint32_t REQUEST = 0;
// The one call of a new pipe.
constexpr uint32_t CALL_ID = 0;

struct Options {
    explicit Options(uint8_t byte)
        : concurrent((byte & 1U) != 0), deaf((byte & 2U) != 0), heartbeat((byte & 4U) != 0), pieces(byte >> 5U) {}

    bool concurrent;
    bool deaf;      // no callback
    bool heartbeat; // times each message
    unsigned pieces;
};

// What must become of one piece, which lies in the FIFO as a whole before any of it is read.
void ReadPiece(const std::string &bytes, std::vector<Delivered> &requests, std::vector<Delivered> &responses) {
    ReadAsDocumented(bytes, [&](const RawFrame &head, const std::string &payload) {
        (head.type == REQUEST ? requests : responses).emplace_back(head.id, payload);
    });
}

// What the callback was given.
class Arrivals {
public:
    void Add(TarvoRequest *request) {
        const std::lock_guard<std::mutex> lock(mutex);
        Require(!closed, "nothing arrives after the notice that the remote has closed");
        if (request == nullptr) {
            closed = true;
        } else {
            requests.emplace_back(request->id, std::string(request->data, request->size));
        }
    }
    std::size_t Count() {
        const std::lock_guard<std::mutex> lock(mutex);
        return requests.size();
    }
    bool Closed() {
        const std::lock_guard<std::mutex> lock(mutex);
        return closed;
    }
    std::vector<Delivered> Take() {
        const std::lock_guard<std::mutex> lock(mutex);
        return requests;
    }

private:
    std::mutex mutex;
    std::vector<Delivered> requests;
    bool closed = false;
};

// One pipe, from its opening to its end, with a remote that writes garbage.
class Exchange {
public:
    explicit Exchange(Options wanted)
        : options(wanted), self(NameTag() + (options.heartbeat ? "reader_heartbeat" : "reader")),
          remote(NameTag() + "garbage"), peer(remote, self), handle(Open()) {
        peer.OpenBoth();
        caller = std::thread([this] { Call(); });
        AwaitCall();
    }

    void Feed(const std::string &bytes) {
        for (std::size_t at = 0; at < bytes.size();) {
            const std::size_t written = peer.SendSome(bytes.substr(at));
            ReadPiece(bytes.substr(at, written), requests, responses);
            // One receive thread reads a message of each pipe in turn: a call takes it past the garbage at least once.
            TheHonestClient().CallWhileUnread(peer.WriteDescriptor(), written);
            // It may be in the middle of the last message, but not any more when it has read something later.
            TheHonestClient().Call();
            at += written;
        }
    }

    void Finish() {
        EndCall();
        CheckRequests();
        peer.CloseWrite();
        peer.CloseRead();
        if (options.deaf) {
            // It stays registered, and takes its files with it.
            Await("a pipe without a callback closes when its remote does", [this] {
                return access(peer.ReadFile().c_str(), F_OK) != 0 && access(peer.WriteFile().c_str(), F_OK) != 0;
            });
        } else {
            Await("the callback is told that the remote has closed", [this] { return arrivals->Closed(); });
        }
        Require(TarvoClosePipe(handle) == 0, "a pipe can be closed");
    }

private:
    int Open() {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        attr.isConcur = options.concurrent;
        if (!options.deaf) {
            attr.callback = [into = arrivals](int, TarvoRequest *request) { into->Add(request); };
        }
        const int opened = TarvoOpen(&attr);
        Require(opened > 0, "a pipe can be opened");
        return opened;
    }

    // Once the request is on its way, the call waits for its response.
    void AwaitCall() {
        Await("the request of a call arrives", [this] { return ended || peer.HasInput(); });
        if (ended) {
            Require(false, ("a call waits for its response, and does not return " + std::to_string(result)).c_str());
        }
        Require(peer.Receive().id == CALL_ID, "the first call of a pipe has the first id");
    }

    void Call() {
        char text[] = "call";
        TarvoRequest request{0, text, sizeof(text)};
        TarvoResponse response{};
        result = TarvoRPCSync(handle, &request, &response);
        answer = result == 0 ? std::string(response.data, response.size) : "";
        DestroyResponse(&response);
        ended = true;
    }

    // The first response with the id of the call ended it. Without one there was none, and it gets its own now.
    void EndCall() {
        const auto meant = std::find_if(responses.begin(), responses.end(),
                                        [](const Delivered &response) { return response.first == CALL_ID; });
        std::string expected = "the answer";
        if (meant != responses.end()) {
            expected = meant->second;
        } else {
            peer.Send(RawResponse(CALL_ID, expected));
        }
        caller.join();
        Require(result == 0 && answer == expected, "a call gets the first response of its id");
    }

    void CheckRequests() {
        if (options.deaf) {
            const std::size_t cached = TableFactory::GetInstance()->GetPipe(handle)->GetInReqList().size();
            Require(cached == std::min(requests.size(), CACHE_ROOM), "a pipe without a callback keeps its requests");
            return;
        }
        if (requests.size() > (options.concurrent ? CONCURRENT_ROOM : WORKER_ROOM)) {
            // Some may have been dropped, or not, as the callbacks were quick.
            return;
        }
        Await("every request of the garbage arrives", [this] { return arrivals->Count() >= requests.size(); });
        std::vector<Delivered> arrived = arrivals->Take();
        if (options.concurrent) {
            std::sort(arrived.begin(), arrived.end());
            std::sort(requests.begin(), requests.end());
        }
        Require(arrived == requests, "what arrives is what was sent");
    }

    const Options options;
    const std::string self;
    const std::string remote;
    std::vector<Delivered> requests;
    std::vector<Delivered> responses;
    std::shared_ptr<Arrivals> arrivals = std::make_shared<Arrivals>();
    RawPeer peer;
    const int handle;
    int result = -1;
    std::string answer;
    std::atomic<bool> ended{false};
    std::thread caller;
};

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    TheHonestClient().Call();
    static const std::size_t descriptors = DescriptorCount();
    Bytes input(data, size);
    const Options options(input.Byte());
    {
        Exchange exchange(options);
        InPieces(options.pieces, input.Rest(), [&exchange](const std::string &piece) { exchange.Feed(piece); });
        exchange.Finish();
    }
    Await("every descriptor is closed", [] { return DescriptorCount() == descriptors; });
    return 0;
}
