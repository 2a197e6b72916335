// The files of links and servers, as those know them that hold one of their ends.
#ifndef TARVO_LOOP_FILES_H
#define TARVO_LOOP_FILES_H

#include <sys/stat.h>
#include <unistd.h>

#include <string>

// Whether `fd` is open and its file stands under `name` itself.
inline bool StandsUnder(int fd, const std::string &name) {
    struct stat opened {};
    struct stat named {};
    return fd >= 0 && fstat(fd, &opened) == 0 && lstat(name.c_str(), &named) == 0 && opened.st_dev == named.st_dev &&
           opened.st_ino == named.st_ino;
}

// Removes the file of `fd` unless another one has its name by now. Without a descriptor there is nothing to tell by.
inline void RemoveOwnFile(int fd, const std::string &name) {
    if (fd < 0 || StandsUnder(fd, name)) {
        unlink(name.c_str());
    }
}

#endif // TARVO_LOOP_FILES_H
