#ifndef TARVO_LOOP_KEPTFRAMES_H
#define TARVO_LOOP_KEPTFRAMES_H

#include <cstddef>
#include <cstring>
#include <string>

#include "loop/FrameReader.h"

// Frames that have come while somebody waited for another one, in their order, until they are delivered.
// Owns: copies of them. Threads: one at a time. Locks: none. Ends: any time.
class KeptFrames {
public:
    // False when there is no memory for it.
    bool Keep(const Frame &frame);

    // The first frame, valid until the next call. False: there is none.
    bool Next(Frame &frame);

    // Shows those that Next() would yet yield. They stay.
    template <typename Visitor>
    void Visit(Visitor visit) const {
        for (std::size_t at = position; at < bytes.size();) {
            Frame frame;
            std::memcpy(&frame, bytes.data() + at, sizeof(frame));
            visit(frame);
            at += sizeof(frame) + frame.size;
        }
    }

    bool Empty() const { return position == bytes.size(); }

private:
    std::string bytes; // from `position` on: each frame's description, then its payload
    std::size_t position = 0;
};

#endif // TARVO_LOOP_KEPTFRAMES_H
