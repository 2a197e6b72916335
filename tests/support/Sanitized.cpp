#include "support/Sanitized.h"

namespace tarvo_test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const bool SANITIZED = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
const bool SANITIZED = true;
#else
const bool SANITIZED = false;
#endif
#else
const bool SANITIZED = false;
#endif

#if defined(TARVO_TEST_EMULATED)
const bool EMULATED = true;
#else
const bool EMULATED = false;
#endif

const bool SLOW = SANITIZED || EMULATED;

} // namespace tarvo_test
