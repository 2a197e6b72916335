// The files of links and servers, as those know them that hold one of their ends.
#ifndef TARVO_LOOP_FILES_H
#define TARVO_LOOP_FILES_H

#include <sys/stat.h>
#include <unistd.h>

#include <string>

inline bool IsSameFile(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// Whether `fd` is open and its file stands under `name` itself.
inline bool StandsUnder(int fd, const std::string &name) {
    struct stat opened {};
    struct stat named {};
    return fd >= 0 && fstat(fd, &opened) == 0 && lstat(name.c_str(), &named) == 0 && IsSameFile(opened, named);
}

// Removes the file of `fd`, unless it is seen that another one has its name by now.
inline void RemoveOwnFile(int fd, const std::string &name) {
    struct stat opened {};
    struct stat named {};
    const bool seen = fd >= 0 && fstat(fd, &opened) == 0 && lstat(name.c_str(), &named) == 0;
    if (!seen || IsSameFile(opened, named)) {
        unlink(name.c_str());
    }
}

#endif // TARVO_LOOP_FILES_H
