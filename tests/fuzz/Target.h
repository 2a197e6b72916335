// What a fuzz target is, and what all of them use.
//
// A target is one function that takes bytes, does with the library what they say, and ends the process when a promise
// is broken. In the preset "checked" libFuzzer feeds it; in every other build Replay.cpp feeds it the kept inputs.
#ifndef TARVO_FUZZ_TARGET_H
#define TARVO_FUZZ_TARGET_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);

namespace tarvo_test {

constexpr std::size_t MAX_PAYLOAD = 4000;
constexpr std::chrono::seconds WAIT_LIMIT(60);

// Ends the process with `promise` and the library's last log lines unless `kept`.
void Require(bool kept, const char *promise);

// Returns once `condition` holds; 60 s without end the process as a broken promise does.
void Await(const char *promise, const std::function<bool()> &condition);

// Ends every sleep of 100 ms and more that some thread is in. Whoever sleeps that long in the library wants to try
// again something that a target has just given up.
void WakeSleepers();

// Number of open descriptors of this process.
std::size_t DescriptorCount();

// Takes an input apart. Everything is zero or empty once the bytes are used up.
class Bytes {
public:
    Bytes(const uint8_t *data, std::size_t size) : next(data), end(data + size) {}

    bool Empty() const { return next == end; }
    std::size_t Left() const { return static_cast<std::size_t>(end - next); }
    uint8_t Byte() { return Empty() ? uint8_t{0} : *next++; }
    unsigned Below(unsigned limit) { return Byte() % limit; }
    bool Flag() { return (Byte() & 1U) != 0; }
    uint32_t Word() { return Byte() | static_cast<uint32_t>(Byte()) << 8; }
    std::string Text(std::size_t length) {
        const std::size_t size = length < Left() ? length : Left();
        const char *begin = reinterpret_cast<const char *>(next);
        next += size;
        return std::string(begin, size);
    }
    std::string Rest() { return Text(Left()); }

private:
    const uint8_t *next;
    const uint8_t *end;
};

} // namespace tarvo_test

#endif // TARVO_FUZZ_TARGET_H
