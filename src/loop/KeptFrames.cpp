#include "loop/KeptFrames.h"

#include <cstring>
#include <new>

bool KeptFrames::Keep(const Frame &frame, uint64_t readAt) {
    const Entry entry{frame, readAt};
    try {
        if (Empty()) {
            bytes.clear();
            position = 0;
        }
        const std::size_t needed = bytes.size() + sizeof(entry) + frame.size;
        if (needed > bytes.capacity()) {
            bytes.reserve(2 * needed);
        }
    } catch (const std::bad_alloc &) {
        return false;
    }
    bytes.append(reinterpret_cast<const char *>(&entry), sizeof(entry));
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
    Entry entry;
    std::memcpy(&entry, bytes.data() + position, sizeof(entry));
    frame = entry.frame;
    at = entry.readAt;
    frame.data = bytes.data() + position + sizeof(entry);
    position += sizeof(entry) + frame.size;
    return true;
}
