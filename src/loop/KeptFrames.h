#ifndef TARVO_LOOP_KEPTFRAMES_H
#define TARVO_LOOP_KEPTFRAMES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "loop/FrameReader.h"

// Frames that have come while somebody waited for another one, in their order, until they are delivered.
// Owns: copies of them. Threads: one at a time. Locks: none. Ends: any time.
class KeptFrames {
public:
    // With when it was read, ns, where that is measured. False when there is no memory for it.
    bool Keep(const Frame &frame, uint64_t readAt);

    // The first frame, valid until the next call. False: there is none.
    bool Next(Frame &frame);
    // Of that frame.
    uint64_t ReadAt() const { return at; }
    // Whether there is nothing, and was nothing when Next() was called last.
    bool Idle() const { return bytes.empty(); }

    // Shows those that Next() would yet yield. They stay.
    template <typename Visitor>
    void Visit(Visitor visit) const {
        for (std::size_t next = position; next < bytes.size();) {
            Entry entry;
            std::memcpy(&entry, bytes.data() + next, sizeof(entry));
            visit(entry.frame);
            next += sizeof(entry) + entry.frame.size;
        }
    }

    bool Empty() const { return position == bytes.size(); }

private:
    struct Entry {
        Frame frame;
        uint64_t readAt;
    };

    std::string bytes; // from `position` on: each frame's entry, then its payload
    std::size_t position = 0;
    uint64_t at = 0;
};

#endif // TARVO_LOOP_KEPTFRAMES_H
