// Whether this program runs under a sanitizer or an emulator, where stress tests take many times longer.
//
// Which sanitizer is not known to the compiler: a test program may be compiled once and linked with several builds of
// the libraries.
#ifndef TARVO_SUPPORT_SANITIZED_H
#define TARVO_SUPPORT_SANITIZED_H

namespace tarvo_test {

extern const bool SANITIZED;
extern const bool EMULATED;

// Whether a step takes many times longer than it does in an ordinary build.
extern const bool SLOW;

// The rounds of a stress test: `full`, or fewer where each takes longer.
inline int Rounds(int full, int slow) { return SLOW ? slow : full; }

} // namespace tarvo_test

#endif // TARVO_SUPPORT_SANITIZED_H
