// Both engines on one stream of bytes: what one delivers the other delivers, in the same order.
//
// Input: one byte that says in how many pieces the loop gets them, then the bytes as they go into the FIFO. A pipe of
// the library gets them whole, for what it makes of a piece that ends in the middle of a frame is its own. Beside the
// garbage an honest link of the same loop makes calls.
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/Honest.h"
#include "fuzz/LoopSide.h"
#include "fuzz/Target.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"

namespace tarvo_test {
namespace {

// Fits into a FIFO whole, and makes no more requests than wait for a callback of the library.
constexpr std::size_t LONGEST = 32000;
constexpr uint32_t RESPONSE = 1;

// What a pipe delivers: requests with their ids, in order, and the answer of the one call on it.
struct Delivered {
    std::vector<std::pair<uint32_t, std::string>> requests;
    std::string answer;
    bool operator==(const Delivered &other) const { return requests == other.requests && answer == other.answer; }
};

// The stream as it goes to a pipe whose call has the id `call`: the ids 0 and `call` of responses change places. The
// checksum is a sum, so that it stays right, or wrong, as it was.
std::string Addressed(std::string bytes, uint32_t call) {
    for (std::size_t at = 0; bytes.size() - at >= RAW_HEAD_SIZE;) {
        RawFrame head = DecodeRawHead(bytes.substr(at, RAW_HEAD_SIZE));
        const std::size_t begin = at;
        at += RAW_HEAD_SIZE;
        if (head.magic != RAW_MAGIC || head.length == 0 || head.length > MAX_PAYLOAD) {
            continue;
        }
        at = std::min(bytes.size(), at + head.length);
        if (head.type == RESPONSE && (head.id == 0 || head.id == call)) {
            const uint32_t id = head.id == 0 ? call : 0;
            head.checksum += id - head.id;
            head.id = id;
            bytes.replace(begin, RAW_HEAD_SIZE, EncodeRawFrame(head));
        }
    }
    return bytes;
}

constexpr char MISSING[] = "the answer that was missing";

// ---- The library ----

class LibrarySide {
public:
    LibrarySide() : handle(Open()) {
        peer.OpenBoth();
        caller = std::thread([this] { seen.answer = Ask(handle, "call"); });
        Require(peer.Receive().id == 0, "the first call of a pipe has the first id");
    }

    Delivered Read(const std::string &bytes) {
        Require(bytes.empty() || peer.SendSome(bytes) == bytes.size(), "the stream fits into the FIFO");
        Await("the stream is read", [this] {
            int unread = 0;
            return ioctl(peer.WriteDescriptor(), FIONREAD, &unread) == 0 && unread == 0;
        });
        TheHonestClient().Call(); // on the thread that has read the stream
        peer.Send(RawResponse(0, MISSING));
        caller.join();
        peer.CloseWrite();
        peer.CloseRead();
        Await("the callback is told that the remote has closed", [this] {
            const std::lock_guard<std::mutex> lock(mutex);
            return closed;
        });
        Require(TarvoClosePipe(handle) == 0, "a pipe can be closed");
        return seen;
    }

private:
    int Open() {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        attr.callback = [this](int, TarvoRequest *request) {
            const std::lock_guard<std::mutex> lock(mutex);
            if (request == nullptr) {
                closed = true;
            } else {
                seen.requests.emplace_back(request->id, std::string(request->data, request->size));
            }
        };
        const int opened = TarvoOpen(&attr);
        Require(opened > 0, "a pipe can be opened");
        return opened;
    }

    const std::string self = NameTag() + "library";
    const std::string remote = NameTag() + "garbage";
    std::mutex mutex;
    Delivered seen;
    bool closed = false;
    RawPeer peer{remote, self};
    const int handle;
    std::thread caller;
};

// ---- The loop ----

class LoopReader {
public:
    LoopReader() {
        peer.CreateFiles();
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *, int opened) {
            Require(opened == 0, "a link opens");
            static_cast<LoopReader *>(context)->open = true;
        };
        callbacks.request = [](void *context, TarvoLink *, uint32_t request, TarvoBytes payload) {
            static_cast<LoopReader *>(context)->Take(request, payload);
        };
        callbacks.closed = [](void *context, TarvoLink *) {
            auto &reader = *static_cast<LoopReader *>(context);
            Require(!reader.closed && reader.ended, "the end comes once, after that of the call");
            reader.closed = true;
        };
        link = OpenLink(TARVO_LINK_ARRANGED_CLIENT, remote, self, callbacks, this);
        DispatchUntil([this] { return open; });
        peer.OpenWrite();
        Require(TarvoLinkCall(link, {"call", 4}, -1, Done, this) > 0, "a call begins");
        call = peer.Receive().id;
    }

    uint32_t CallId() const { return call; }

    Delivered Read(unsigned pieces, const std::string &bytes) {
        InPieces(pieces, bytes, [this](const std::string &piece) {
            Require(peer.SendSome(piece) == piece.size(), "the stream fits into the FIFO");
            TheHonestLink().Call();
            ReadAnswers();
        });
        // The beginning of a frame may wait for its rest, so nothing can follow the stream but its end.
        peer.CloseWrite();
        DispatchUntil([this] {
            ReadAnswers();
            return closed;
        });
        ReadAnswers();
        Require(ids.size() == payloads.size(), "each request is answered once");
        Delivered seen;
        for (std::size_t i = 0; i < ids.size(); ++i) {
            seen.requests.emplace_back(ids[i], payloads[i]);
        }
        seen.answer = result == 0 ? answer : MISSING;
        Require(result == 0 || result == -EPIPE, "a call ends with its answer or with the link");
        Require(TarvoLinkClose(link) == 0, "a link can be closed");
        return seen;
    }

private:
    static void Done(void *context, int ending, TarvoBytes bytes) {
        auto &reader = *static_cast<LoopReader *>(context);
        Require(!reader.ended && !reader.closed, "a call ends once");
        reader.ended = true;
        reader.result = ending;
        reader.answer = bytes.data == nullptr ? "" : std::string(bytes.data, bytes.size);
    }

    void Take(uint32_t request, TarvoBytes payload) {
        Require(!closed, "nothing arrives after the end");
        payloads.emplace_back(payload.data, payload.size);
        const int replied = TarvoLinkReply(link, request, {"r", 1});
        Require(replied == 0, "a request can be answered");
        Require(TarvoLinkReply(link, request, {"r", 1}) == -ENOENT, "but not twice");
    }

    // The ids of the requests are seen in what answers them.
    void ReadAnswers() {
        while (peer.HasInput()) {
            ids.push_back(peer.Receive().id);
        }
    }

    const std::string self = NameTag() + "loop";
    const std::string remote = NameTag() + "garbage";
    RawPeer peer{remote, self};
    TarvoLink *link = nullptr;
    uint32_t call = 0;
    bool open = false;
    bool ended = false;
    bool closed = false;
    int result = 1;
    std::string answer;
    std::vector<uint32_t> ids;
    std::vector<std::string> payloads;
};

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    TheHonestClient().Call();
    TheHonestLink().Call();
    static const std::size_t descriptors = DescriptorCount();
    Bytes input(data, size);
    const unsigned pieces = input.Byte();
    const std::string stream = input.Text(LONGEST);
    Delivered ofTheLoop;
    {
        LoopReader loop;
        ofTheLoop = loop.Read(pieces, Addressed(stream, loop.CallId()));
    }
    {
        LibrarySide library;
        Require(library.Read(stream) == ofTheLoop, "both engines deliver the same");
    }
    Await("every descriptor is closed", [] { return DescriptorCount() == descriptors; });
    return 0;
}
