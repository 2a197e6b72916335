// What the tests of the frames have in common.
#ifndef TARVO_UNIT_LOOP_FRAMEKIT_H
#define TARVO_UNIT_LOOP_FRAMEKIT_H

#include <ostream>
#include <string>
#include <vector>

#include "loop/FrameReader.h"
#include "support/RawFrame.h"

namespace tarvo_test {

// A frame with bytes of its own.
struct Arrived {
    uint32_t id;
    uint32_t type;
    std::string payload;

    bool operator==(const Arrived &other) const {
        return id == other.id && type == other.type && payload == other.payload;
    }
};

inline std::ostream &operator<<(std::ostream &out, const Arrived &frame) {
    return out << "{" << frame.id << ", " << frame.type << ", " << frame.payload.substr(0, 40) << "}";
}

inline Arrived Copy(const Frame &frame) { return {frame.id, frame.type, std::string(frame.data, frame.size)}; }

inline std::vector<Arrived> Drain(FrameReader &reader) {
    std::vector<Arrived> arrived;
    for (Frame frame{}; reader.Next(frame);) {
        arrived.push_back(Copy(frame));
    }
    return arrived;
}

inline std::vector<Arrived> ReadAll(FrameReader &reader, const std::string &bytes) {
    reader.Feed(bytes.data(), bytes.size());
    return Drain(reader);
}

inline std::string Pattern(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>('a' + i % 23);
    }
    return bytes;
}

} // namespace tarvo_test

#endif // TARVO_UNIT_LOOP_FRAMEKIT_H
