#ifndef TARVO_SERVER_TERMINATEWATCH_H
#define TARVO_SERVER_TERMINATEWATCH_H

#include <array>
#include <cstddef>

// Tells from the bytes that the server thread reads whether the terminate packet of this very process was among them,
// whatever it was taken for: after a packet that was cut off the next one is taken for the rest of it.
// Owns: a copy of the last bytes. Threads: the server thread. Locks: none. Ends: any time.
class TerminateWatch {
public:
    // The next bytes that were read.
    void Note(const char *bytes, std::size_t count);

    // Whether the whole packet was among them.
    bool HasSeenAll() const { return seenAll; }
    // Whether they end with the beginning of it.
    bool HasSeenBegin() const { return seenBegin; }

private:
    static constexpr std::size_t SIZE = 16;

    std::array<char, SIZE> last{};
    bool seenAll = false;
    bool seenBegin = false;
};

#endif // TARVO_SERVER_TERMINATEWATCH_H
