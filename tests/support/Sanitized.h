// Whether this program runs under a sanitizer or an emulator, where stress tests take many times longer.
#ifndef TARVO_SUPPORT_SANITIZED_H
#define TARVO_SUPPORT_SANITIZED_H

namespace tarvo_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif
#else
constexpr bool SANITIZED = false;
#endif

#if defined(TARVO_TEST_EMULATED)
constexpr bool EMULATED = true;
#else
constexpr bool EMULATED = false;
#endif

// Whether a step takes many times longer than it does in an ordinary build.
constexpr bool SLOW = SANITIZED || EMULATED;

// The rounds of a stress test: `full`, or fewer where each takes longer.
constexpr int Rounds(int full, int slow) { return SLOW ? slow : full; }

} // namespace tarvo_test

#endif // TARVO_SUPPORT_SANITIZED_H
