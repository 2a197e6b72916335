#ifndef TARVO_SERVER_PIPESERVERMESSAGE_H
#define TARVO_SERVER_PIPESERVERMESSAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

// What a packet on a server's monitor FIFO says.
enum PipeServerMsgType : int32_t {
    PIPE_SERVER_MSG_CONNECT = 0,   // a client announces itself under the name that follows
    PIPE_SERVER_MSG_TERMINATE = 1, // the server tells its own thread to end
};

// The part that every packet starts with, in host byte order. A connect packet goes on with the size of the client's
// name (4 bytes, unsigned) and the name.
struct PipeServerMsgHead {
    uint32_t magic;
    int32_t type;
    uint32_t gid;
    int32_t pid;
};
static_assert(sizeof(PipeServerMsgHead) == 16, "the head is sent as it lies in memory, without padding");

// Servers refuse a longer name: 100 characters, "_" and a process id.
constexpr uint32_t PIPE_SERVER_MAX_CLIENT_NAME = 110;

// One packet for the monitor FIFO of a server, built in one piece so that it is written with a single write.
// Owns: its buffer. Threads: one. Locks: none. Ends: any time.
class PipeServerMessage {
public:
    // A connect packet carries the client's name; a terminate packet none. Takes group and process id of the caller.
    PipeServerMessage(PipeServerMsgType packetType, const std::string &clientName);

    // Builds the packet: 0, -EINVAL when the name is too long, or -ENOMEM. May be called again.
    int Init();

    // The packet once Init has succeeded, else null; Size() bytes.
    const char *GetData() const { return buffer.get(); }
    std::size_t Size() const { return msgSize; }

private:
    int FillBuffer();

    PipeServerMsgType type;
    uint64_t msgSize;
    std::string name;
    uint32_t nameSize;
    uint64_t headSize = 16;
    std::unique_ptr<char[]> buffer;
    uint32_t gid;
    int32_t pid;
};

#endif // TARVO_SERVER_PIPESERVERMESSAGE_H
