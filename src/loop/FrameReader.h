#ifndef TARVO_LOOP_FRAMEREADER_H
#define TARVO_LOOP_FRAMEREADER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "pipe/Message.h"

// Where the bytes of a reader come from, as its log lines tell it.
struct FrameOrigin {
    std::string remote;
    int readFd = -1;
    uint64_t *bad = nullptr; // how many frames were dropped, by reason (tarvo_stats.h); null: nobody asks
};

// A request or response that has arrived. `data` points into what was read.
struct Frame {
    uint32_t id;
    MsgType type;
    int32_t timeout;
    int64_t writeStartTime; // of the sender: monotonic microseconds
    const char *data;
    uint32_t size;
};

// How many frames, and bytes of their payload.
// Owns: nothing. Threads, Locks: as whose it is. Ends: any time.
struct FrameSum {
    void Add(uint64_t size) {
        ++frames;
        bytes += size;
    }
    uint64_t frames = 0;
    uint64_t bytes = 0;
};

// Finds the frames in what the reads of a FIFO yield, however the reads have cut it, and drops what is none: a head
// with a wrong magic number or length by itself, a frame with a wrong checksum or type as a whole.
//
// Use: Feed() with the bytes of a read, then Next() until it yields false. Between two calls of Next() anything else
// may happen, so long as the bytes stay in place; a next read comes after the last, or after Stash().
//
// Owns: the beginning of a frame whose rest has not been read yet. Threads: one at a time. Locks: none. Ends: any time.
class FrameReader {
public:
    // `source` outlives the reader.
    explicit FrameReader(const FrameOrigin &source) : origin(source) {}
    FrameReader(const FrameReader &) = delete;
    FrameReader &operator=(const FrameReader &) = delete;

    // `bytes` stay the caller's.
    void Feed(const char *bytes, std::size_t size);

    // The next frame, valid until the next call of any function but HasUnread(). False: all that was fed is used up,
    // and its memory may go.
    bool Next(Frame &frame);
    // What it has yielded since this was asked last.
    FrameSum TakeSum() { return std::exchange(sum, {}); }
    const FrameSum &Sum() const { return sum; }
    // One that is counted by itself.
    void LeaveOut(uint64_t size) {
        --sum.frames;
        sum.bytes -= size;
    }

    // Whether what has just been fed is one frame and nothing else, as its head has it.
    bool IsOneFrame() const {
        const auto size = static_cast<std::size_t>(end - unread);
        uint32_t payloadLen = 0;
        if (carried != 0 || size < sizeof(MsgHead)) {
            return false;
        }
        std::memcpy(&payloadLen, unread + offsetof(MsgHead, payloadLen), sizeof(payloadLen));
        return payloadLen == size - sizeof(MsgHead);
    }

    // Whether Next() yields a frame. Drops bad bytes that are in the way.
    bool HasNext();

    // Whether there are bytes that Next() has not come to.
    bool HasUnread() const { return held || unread != end; }

    // Keeps what is unread in memory of its own, so that the bytes fed may go; another read can be fed only when this
    // has been used up. False when there is no memory for that, and nothing has changed.
    bool Stash();

    // Shows the frames that Next() would yet yield, as their heads have it. They stay, and have no data here.
    template <typename Visitor>
    void VisitRest(Visitor visit) const {
        if (held) {
            visit(found);
        }
        Frame frame{};
        for (std::size_t at = 0; FrameInRest(at, frame);) {
            visit(frame);
        }
    }

    // No more bytes will come: the beginning of a frame that is kept is dropped.
    void End();

private:
    static constexpr std::size_t LONGEST = sizeof(MsgHead) + Message::MAX_PAYLOAD_LEN;

    bool Find();
    bool FindInCarry();
    bool FindInUnread();
    bool Carry(std::size_t size);
    void CarryRest() { Carry(LONGEST); }
    bool HeadValid(const MsgHead &head) const;
    bool Accept(const MsgHead &head, const char *payload);
    void CountBad(uint32_t reason) const;
    // Of what is carried and unread together.
    std::size_t RestSize() const { return carried + static_cast<std::size_t>(end - unread); }
    bool FrameInRest(std::size_t &at, Frame &frame) const;

    const FrameOrigin &origin;
    const char *unread = nullptr;
    const char *end = nullptr;
    bool held = false; // `found` has been found and not been yielded
    bool foundInCarry = false;
    Frame found{};
    FrameSum sum;
    std::size_t carried = 0;
    std::array<char, LONGEST> carry; // the first `carried` bytes
    std::string stash;
};

#endif // TARVO_LOOP_FRAMEREADER_H
