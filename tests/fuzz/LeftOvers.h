#ifndef TARVO_FUZZ_LEFTOVERS_H
#define TARVO_FUZZ_LEFTOVERS_H

#include <cstddef>

namespace tarvo_test {

// What the process holds at one moment, to which it must come back after an input.
// Owns: nothing. Threads: one. Locks: none. Ends: any time.
class LeftOvers {
public:
    LeftOvers();

    // Closes every pipe that was opened since, also those whose handle nobody was told: of opens that failed, and of
    // the server. Ends the process when anything else is left then.
    void AwaitNoOther() const;

private:
    const int firstHandle;
    const std::size_t pipes;
    const std::size_t descriptors;
};

} // namespace tarvo_test

#endif // TARVO_FUZZ_LEFTOVERS_H
