#ifndef TARVO_BASE_UNIQUEFD_H
#define TARVO_BASE_UNIQUEFD_H

#include <unistd.h>

#include <utility>

// Closes a descriptor, once, when its owner goes, also by an exception or by the cancellation of the thread.
// Owns: the descriptor, or none (-1). Threads: one. Locks: none. Ends: at any time.
class UniqueFd {
public:
    explicit UniqueFd(int owned = -1) : fd(owned) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int Get() const { return fd; }
    // The descriptor, which from now on is the caller's to close.
    int Release() { return std::exchange(fd, -1); }
    // Closes it now, for whoever reports that: what close(2) returns, or 0 when there is none. It is gone either way.
    int Close() { return fd >= 0 ? close(Release()) : 0; }
    void Reset() { Close(); }

private:
    int fd;
};

#endif // TARVO_BASE_UNIQUEFD_H
