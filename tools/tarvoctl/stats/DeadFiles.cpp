#include "stats/DeadFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "base/UniqueFd.h"
#include "shared/FifoFiles.h"

namespace tarvoctl {
namespace {

// The lock of a living process keeps this one out. While this one is held, no process that has just made the file gets
// its own; so a file that is not locked now is not, nor will be, anybody's. It ends with the descriptor.
bool TakeFrom(int fd) {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

bool IsHeld(int fd) {
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

void Fail(DeadFile &file) {
    file.action = DeadFile::Action::FAIL;
    file.reason = std::strerror(errno);
}

// Whether the name still is that of the open file.
bool IsStill(const DeadFile &file, int fd) {
    struct stat opened {};
    struct stat named {};
    return fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode) && lstat(file.path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

void Judge(DeadFile &file, const FifoFile &found, bool remove, std::chrono::seconds minAge) {
    const UniqueFd fd(open(file.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (fd.Get() < 0) {
        Fail(file);
        return;
    }
    if (remove ? !TakeFrom(fd.Get()) : IsHeld(fd.Get())) {
        file.reason = "its process lives";
        return;
    }
    // Between the making of a file and its lock nobody holds it.
    if (std::time(nullptr) - found.changed < minAge.count()) {
        file.reason = "too young to be sure (--min-age)";
        return;
    }
    if (!IsStill(file, fd.Get())) {
        file.reason = "changed meanwhile";
        return;
    }
    file.action = DeadFile::Action::REMOVE;
    file.reason = "its process has ended";
    if (remove && unlink(file.path.c_str()) != 0) {
        Fail(file);
    }
}

} // namespace

int CleanDeadFiles(const std::string &directory, bool remove, std::chrono::seconds minAge,
                   std::vector<DeadFile> &files) {
    const FifoFiles found = ScanFifoFiles(WithSlash(directory));
    if (found.error != 0) {
        return -found.error;
    }
    for (const FifoFile &one : found.others) {
        // Folders below are nobody's; links and devices are not ours.
        if (S_ISREG(one.mode) && one.name.find('/') == std::string::npos) {
            files.push_back({WithSlash(directory) + one.name, DeadFile::Action::KEEP, ""});
            Judge(files.back(), one, remove, minAge);
        }
    }
    return 0;
}

} // namespace tarvoctl
