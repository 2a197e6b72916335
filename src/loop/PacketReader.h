#ifndef TARVO_LOOP_PACKETREADER_H
#define TARVO_LOOP_PACKETREADER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "server/PipeServerMessage.h"

// A client that has announced itself.
struct ConnectPacket {
    uint32_t gid;
    int32_t pid;
    std::string_view name; // up to a terminating zero; valid until the next packet is looked for
};

// Finds the packets in what the reads of a server's FIFO yield, and drops what is none: byte by byte until a magic
// number is there, then as much of a packet as was looked at before it proved to be bad.
// Owns: the beginning of a packet whose rest has not been read yet. Threads: one. Locks: none. Ends: any time.
class PacketReader {
public:
    enum class Found { NOTHING, CONNECT, TERMINATE };

    // `bytes` stay the caller's, until Next() yields NOTHING.
    void Feed(const char *bytes, std::size_t size);
    bool HasUnread() const { return unread != end; }

    // NOTHING: all that was fed is used up.
    Found Next(ConnectPacket &packet);

    // What was fed last left the FIFO empty. A field that it breaks off in is dropped with its packet, so that whoever
    // writes next is not taken for its rest; a packet that ends between two fields may go on.
    void EndOfRead();

    // How often something was dropped since this was asked last: bytes between packets, or a packet.
    uint64_t TakeBad() { return std::exchange(bad, 0); }

private:
    static constexpr std::size_t NAME_OFFSET = sizeof(PipeServerMsgHead) + sizeof(uint32_t);

    bool FindMagic();
    void Drop();
    bool Carry(std::size_t size);
    template <typename Field>
    Field At(std::size_t offset) const;

    const char *unread = nullptr;
    const char *end = nullptr;
    std::size_t carried = 0;
    uint64_t bad = 0;
    bool dropping = false; // what comes until the next packet is counted already
    std::array<char, NAME_OFFSET + PIPE_SERVER_MAX_CLIENT_NAME> carry{}; // the first `carried` bytes
};

#endif // TARVO_LOOP_PACKETREADER_H
