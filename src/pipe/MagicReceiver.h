#ifndef TARVO_PIPE_MAGICRECEIVER_H
#define TARVO_PIPE_MAGICRECEIVER_H

#include <cstdint>

// What every reader of a FIFO has in common: the magic number that frames and connect packets start with, and its
// byte-wise check.
// Owns: nothing. Threads: the one that reads. Locks: none. Ends: with the derived reader.
class MagicReceiver {
public:
    // The magic in host byte order, and as the byte sequence on the wire.
    static const uint32_t MAGIC = 0xA6B7C8D9U;
    static const uint8_t MAGIC_ENUM[4];

    enum MagicResult : uint32_t {
        MAGIC_OK = 0,
        MAGIC_MISMATCH = 1,
        MAGIC_PEER_CLOSED = 2,
        MAGIC_RECV_ERROR = 3,
    };

    MagicReceiver() = default;
    virtual ~MagicReceiver() = default;
    MagicReceiver(const MagicReceiver &) = delete;
    MagicReceiver &operator=(const MagicReceiver &) = delete;

    // Reads `len` bytes into `buf`: the count read, 0 when the peer has closed, or a negated errno.
    virtual int Recv(void *buf, unsigned long len) = 0;

    // Reads and checks the four magic bytes one by one and stops at the first that differs; the caller decides what to
    // do with the rest of the stream.
    uint32_t RecvMagic();

private:
    uint32_t CheckMagicByte(unsigned index);
};

#endif // TARVO_PIPE_MAGICRECEIVER_H
