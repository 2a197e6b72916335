#ifndef TARVO_API_UNIQUEFD_H
#define TARVO_API_UNIQUEFD_H

#include <unistd.h>

// Closes a descriptor when its owner goes, also by an exception or by the cancellation of the thread.
// Owns: the descriptor, if it is not negative. Threads: one. Locks: none. Ends: at any time.
class UniqueFd {
public:
    explicit UniqueFd(int descriptor) : fd(descriptor) {}
    ~UniqueFd() {
        if (fd >= 0) {
            close(fd);
        }
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int Get() const { return fd; }

private:
    int fd;
};

#endif // TARVO_API_UNIQUEFD_H
