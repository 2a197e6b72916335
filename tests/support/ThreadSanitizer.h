// Defines TARVO_THREAD_SANITIZER in the builds with that sanitizer, of each compiler. They compile all tests
// themselves.
#ifndef TARVO_SUPPORT_THREADSANITIZER_H
#define TARVO_SUPPORT_THREADSANITIZER_H

#if defined(__SANITIZE_THREAD__)
#define TARVO_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TARVO_THREAD_SANITIZER
#endif
#endif

#endif // TARVO_SUPPORT_THREADSANITIZER_H
