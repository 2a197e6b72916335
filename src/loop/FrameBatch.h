#ifndef TARVO_LOOP_FRAMEBATCH_H
#define TARVO_LOOP_FRAMEBATCH_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "loop/Moments.h"
#include "pipe/Message.h"
#include "tarvo_loop.h"

// Gathers frames for one write. A FIFO takes up to 4096 bytes as a whole or not at all (see pipe(7)), so that the
// frames of other writers never stand in the middle of these. Owns: the frames. Threads: one at a time. Locks: none.
// Ends: any time.
class FrameBatch {
public:
    static constexpr std::size_t ROOM = 4096;

    FrameBatch() = default;
    FrameBatch(const FrameBatch &) = delete;
    FrameBatch &operator=(const FrameBatch &) = delete;

    // Whether a frame of so many bytes of payload finds room. Always true for a valid one when the batch is empty.
    bool HasRoomFor(uint32_t payloadSize) const { return ROOM - used >= sizeof(MsgHead) + uint64_t{payloadSize}; }

    // Appends a frame; its bytes are copied. `timeoutMs` is -1 in a response. 0, -EINVAL (a size that no frame can
    // have), or -EAGAIN (no room).
    int Add(uint32_t id, MsgType type, int32_t timeoutMs, TarvoBytes payload);

    bool Empty() const { return used == 0; }
    std::size_t Frames() const { return frames; }
    std::size_t PayloadBytes() const { return used - frames * sizeof(MsgHead); }

    // All frames, with the present time as that of their writing: for the write that follows at once. Valid until the
    // next change.
    TarvoBytes Stamped() { return StampedAt(Now()); }
    TarvoBytes StampedAt(int64_t nowUs);

    // They have been written, or are dropped.
    void Clear() { used = frames = 0; }

private:
    std::size_t used = 0;
    std::size_t frames = 0;
    std::array<char, ROOM> bytes; // the first `used`
};

#endif // TARVO_LOOP_FRAMEBATCH_H
