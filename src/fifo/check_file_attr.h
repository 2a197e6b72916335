// What kind of file a path names, links not followed.
#ifndef TARVO_FIFO_CHECK_FILE_ATTR_H
#define TARVO_FIFO_CHECK_FILE_ATTR_H

#include <sys/stat.h>

#include <string>

// Fills `state` with what is at `path` itself (lstat). 0 or a negated errno, with `state` cleared. Any thread.
int GetFileState(const std::string &path, struct stat &state);

// 0 when `path` is anything but a symbolic link, -EINVAL when it is one, or the negated errno of lstat. Any thread.
int IsLink(const std::string &path);

// Whether both are states of one file.
inline bool IsSameFile(const struct stat &one, const struct stat &other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

#endif // TARVO_FIFO_CHECK_FILE_ATTR_H
