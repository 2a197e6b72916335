// The bounded memory and string functions of C11 Annex K, which glibc lacks. 0 (the formatters: the length) on success;
// EINVAL or ERANGE (the formatters: -1, also when more than `count` characters would be written) on failure, with an
// emptied string where the destination is a string. On a platform that has the functions, its own are used.
#ifndef TARVO_BASE_BOUNDED_H
#define TARVO_BASE_BOUNDED_H

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#if !defined(__STDC_LIB_EXT1__)

#pragma GCC visibility push(hidden)

inline int memcpy_s(void *dest, std::size_t destMax, const void *src, std::size_t count) {
    if (dest == nullptr || src == nullptr) {
        return EINVAL;
    }
    if (count > destMax) {
        return ERANGE;
    }
    std::memcpy(dest, src, count);
    return 0;
}

inline int memset_s(void *dest, std::size_t destMax, int c, std::size_t count) {
    if (dest == nullptr) {
        return EINVAL;
    }
    if (count > destMax) {
        return ERANGE;
    }
    std::memset(dest, c, count);
    return 0;
}

inline int strcpy_s(char *dest, std::size_t destMax, const char *src) {
    if (dest == nullptr || destMax == 0) {
        return EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    const std::size_t length = strnlen(src, destMax);
    if (length == destMax) {
        dest[0] = '\0';
        return ERANGE;
    }
    std::memcpy(dest, src, length + 1);
    return 0;
}

inline int strcat_s(char *dest, std::size_t destMax, const char *src) {
    if (dest == nullptr || destMax == 0) {
        return EINVAL;
    }
    const std::size_t used = strnlen(dest, destMax);
    if (used == destMax) {
        dest[0] = '\0';
        return EINVAL;
    }
    const int ret = strcpy_s(dest + used, destMax - used, src);
    if (ret != 0) {
        dest[0] = '\0';
    }
    return ret;
}

__attribute__((format(printf, 4, 0))) inline int vsnprintf_s(char *dest, std::size_t destMax, std::size_t count,
                                                             const char *format, std::va_list args) {
    if (dest == nullptr || destMax == 0 || format == nullptr) {
        return -1;
    }
    const int length = std::vsnprintf(dest, destMax, format, args);
    if (length < 0 || static_cast<std::size_t>(length) >= destMax || static_cast<std::size_t>(length) > count) {
        dest[0] = '\0';
        return -1;
    }
    return length;
}

__attribute__((format(printf, 4, 5))) inline int snprintf_s(char *dest, std::size_t destMax, std::size_t count,
                                                            const char *format, ...) {
    std::va_list args;
    va_start(args, format);
    const int length = vsnprintf_s(dest, destMax, count, format, args);
    va_end(args);
    return length;
}

#pragma GCC visibility pop

#endif

#endif // TARVO_BASE_BOUNDED_H
