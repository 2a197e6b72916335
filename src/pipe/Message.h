// The frame that carries one request or response over a FIFO, and its forms in memory.
//
// A frame is a 32-byte head and 1 to 4000 payload bytes, written with one write(2): its 4032 bytes at most stay below
// PIPE_BUF, so frames of several writers never interleave (see pipe(7)).
#ifndef TARVO_PIPE_MESSAGE_H
#define TARVO_PIPE_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "base/HasSymbol.h"
#include "tarvo.h"

// The head on the wire, in host byte order.
struct MsgHead {
    uint32_t magic;
    uint32_t id;
    uint32_t type;
    uint32_t payloadLen;
    uint32_t checksum;      // over id, type, payloadLen, payload and magic
    int32_t timeout;        // a request's time-out in ms, for information; -1 in a response
    int64_t writeStartTime; // monotonic microseconds just before the write
};
static_assert(sizeof(MsgHead) == 32 && offsetof(MsgHead, id) == 4 && offsetof(MsgHead, type) == 8 &&
                  offsetof(MsgHead, payloadLen) == 12 && offsetof(MsgHead, checksum) == 16 &&
                  offsetof(MsgHead, timeout) == 20 && offsetof(MsgHead, writeStartTime) == 24,
              "the head is read and written as it lies in memory");

enum MsgType : uint32_t {
    MSG_TYPE_REQUEST = 0,
    MSG_TYPE_RESPONSE = 1,
};

// What incoming and outgoing messages share.
// Owns: nothing. Threads: one at a time. Locks: none. Ends: any time.
class Message {
public:
    static const uint64_t MAX_PAYLOAD_LEN = 4000;

    HAS_SYMBOL Message(uint32_t msgId, uint32_t msgType, uint32_t length)
        : id(msgId), type(msgType), payloadLen(length) {}
    virtual ~Message() = default;
    Message(const Message &) = delete;
    Message(Message &&) = default;
    Message &operator=(const Message &) = delete;

    // The payload, or null.
    virtual const char *GetData() const = 0;

    HAS_SYMBOL std::size_t OverheadSize() const { return sizeof(MsgHead); }
    HAS_SYMBOL std::size_t Size() const { return OverheadSize() + payloadLen; }
    bool SizeValid() const;

    // Computes, stores and returns the additive checksum.
    uint32_t Checksum();

    uint32_t id;
    uint32_t type;
    uint32_t payloadLen;
    uint32_t checksum = 0;
};

// A message being received.
// Owns: the payload buffer, until ReleaseData(). Threads, Locks, Ends: as Message.
class InMessage : public Message {
public:
    HAS_SYMBOL InMessage(uint32_t msgId, uint32_t msgType, uint32_t length) : Message(msgId, msgType, length) {}

    const char *GetData() const override { return data.get(); }

    // The buffer to receive into: allocated on first use, null when the payload length is not valid.
    char *GetData();

    // The same for a receiver that fills all of it or drops the message: not cleared, and with ROOM bytes more behind
    // the payload if `withRoom`.
    char *MakeBuffer(bool withRoom);
    // Whether there is that room.
    bool HasRoom() const { return room && data; }

    // Hands the buffer to the caller, who frees it with array delete.
    HAS_SYMBOL char *ReleaseData() { return data.release(); }

    // For the request itself while it waits for its worker, so that both are one block of the heap.
    static constexpr std::size_t ROOM = 192;

    // Whether the pipe's record of its times is this message's own, and not that of an earlier one with its id.
    bool timed = false;
    // When it was read, in ns, or 0 if that is not counted.
    uint64_t readAt = 0;

private:
    bool room = false;
    std::unique_ptr<char[]> data;
};

// A message about to be sent; lives on the sender's stack for one send.
// Owns: nothing (the payload is the caller's). Threads, Locks, Ends: as Message.
class OutMessage : public Message {
public:
    HAS_SYMBOL OutMessage(uint32_t msgId, const TarvoRequest &req, int timeoutMs)
        : Message(msgId, MSG_TYPE_REQUEST, req.size), timeout(timeoutMs), dataOut(req.data) {}
    HAS_SYMBOL OutMessage(uint32_t msgId, const TarvoResponse &rsp)
        : Message(msgId, MSG_TYPE_RESPONSE, rsp.size), timeout(-1), dataOut(rsp.data) {}

    const char *GetData() const override { return dataOut; }

    int32_t timeout;
    const char *dataOut;
};

class TarvoPipeImpl;
class TarvoTask;

// An incoming request that waits for its callback or is being handled by it.
// Owns: the payload taken over from the message. Threads: one at a time. Locks: none. Ends: after the callback.
class InRequest {
public:
    HAS_SYMBOL explicit InRequest(InMessage &msg)
        : id(msg.id), data(msg.ReleaseData()), length(msg.payloadLen), timed(msg.timed), readAt(msg.readAt) {}
    virtual ~InRequest() = default;
    InRequest(const InRequest &) = delete;
    InRequest &operator=(const InRequest &) = delete;

    // Itself as the task that hands it to a copy of a pipe's callback, where it was made to be one, else null. Once,
    // before it is queued.
    virtual const TarvoTask *Bind(const std::shared_ptr<TarvoPipeImpl> &,
                                  const std::function<void(int, TarvoRequest *)> &) {
        return nullptr;
    }

    uint32_t id;
    std::unique_ptr<char[]> data;
    uint32_t length;
    const bool timed;      // InMessage::timed
    const uint64_t readAt; // InMessage::readAt
};

#endif // TARVO_PIPE_MESSAGE_H
