#include "loop/KeptFrames.h"

#include <cstring>
#include <new>

bool KeptFrames::Keep(const Frame &frame) {
    try {
        if (Empty()) {
            bytes.clear();
            position = 0;
        }
        const std::size_t needed = bytes.size() + sizeof(frame) + frame.size;
        if (needed > bytes.capacity()) {
            bytes.reserve(2 * needed);
        }
    } catch (const std::bad_alloc &) {
        return false;
    }
    bytes.append(reinterpret_cast<const char *>(&frame), sizeof(frame));
    bytes.append(frame.data, frame.size);
    return true;
}

bool KeptFrames::Next(Frame &frame) {
    if (Empty()) {
        // Nobody looks at the last one any more.
        std::string().swap(bytes);
        position = 0;
        return false;
    }
    std::memcpy(&frame, bytes.data() + position, sizeof(frame));
    frame.data = bytes.data() + position + sizeof(frame);
    position += sizeof(frame) + frame.size;
    return true;
}
