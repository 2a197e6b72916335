#include "loop/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "diag/velm_syslog.h"
#include "fifo/check_file_attr.h"

namespace {

constexpr char LOG_TAG[] = "Files";

int RefuseFile(const std::string &name) {
    TARVO_LOG_RESTRAINED(LOG_ERR, "File %s exists but is not fifo file.", name.c_str());
    return -EACCES;
}

// What a failed open tells of a file that is no FIFO: a link, a directory that was to be written, a socket. Of one that
// is to be written it cannot tell a socket from a FIFO without a reader; the next look does.
int VerdictOf(int error, const std::string &name, int flags) {
    const bool isSocket = error == ENXIO && flags == O_RDONLY;
    return error == ELOOP || error == EISDIR || isSocket ? RefuseFile(name) : -error;
}

} // namespace

int OpenEnd(const std::string &name, int flags) {
    struct stat named {};
    if (lstat(name.c_str(), &named) != 0) {
        return -errno;
    }
    // The opening of a device may have consequences, and that of a file is seen by others.
    if (!S_ISFIFO(named.st_mode)) {
        return RefuseFile(name);
    }
    const int fd = open(name.c_str(), flags | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        return VerdictOf(errno, name, flags);
    }
    // Something else may have taken its place meanwhile.
    struct stat opened {};
    const int ret = fstat(fd, &opened) == 0 ? 0 : -errno;
    if (ret == 0 && S_ISFIFO(opened.st_mode)) {
        return fd;
    }
    close(fd);
    return ret != 0 ? ret : RefuseFile(name);
}

bool StandsUnder(int fd, const std::string &name) {
    struct stat opened {};
    struct stat named {};
    return fd >= 0 && fstat(fd, &opened) == 0 && lstat(name.c_str(), &named) == 0 && IsSameFile(opened, named);
}

void RemoveOwnFile(int fd, const std::string &name) {
    struct stat opened {};
    struct stat named {};
    const bool seen = fd >= 0 && fstat(fd, &opened) == 0 && lstat(name.c_str(), &named) == 0;
    if (!seen || IsSameFile(opened, named)) {
        unlink(name.c_str());
    }
}
