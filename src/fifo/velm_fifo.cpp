#include "fifo/velm_fifo.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "base/Cancellation.h"
#include "base/UniqueFd.h"
#include "diag/velm_syslog.h"
#include "fifo/check_file_attr.h"
#include "fifo/fifo_label.h"
#include "fifo/velm_check.h"

namespace {

constexpr char LOG_TAG[] = "velm_fifo";
constexpr mode_t FIFO_MODE = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP;
constexpr uid_t SAME_OWNER = static_cast<uid_t>(-1);

// Creates a FIFO under a name that no other process uses and stores that name in `tempName`.
int MakeTempFifo(const std::string &name, std::string &tempName) {
    int ret = 0;
    do {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        tempName = name + std::to_string(now.tv_nsec);
        ret = mkfifo(tempName.c_str(), FIFO_MODE) == 0 ? 0 : -errno;
    } while (ret == -EEXIST);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Make fifo %s failed, ret=%d.", tempName.c_str(), ret);
        TARVO_LOG(LOG_ERR, "Make fifo %s failed, ret=%d.", name.c_str(), ret);
    }
    return ret;
}

// Gives `path` the group `gid`; `tempName` is only logged. A FIFO of another group still serves processes that share
// its owner, so this never fails the creation. A link that has been put in its place is not followed.
void SetGroup(const std::string &path, const std::string &tempName, uint32_t gid) {
    if (lchown(path.c_str(), SAME_OWNER, gid) != 0) {
        TARVO_LOG(LOG_INFO, "Changes fifo %s's gid to %u, ret=%d.", tempName.c_str(), gid, errno);
    }
}

// Sets mode and group of the temporary FIFO, which mkfifo has left to the umask; removes it when that fails.
int SetTempPermission(const std::string &tempName, uint32_t gid) {
    if (chmod(tempName.c_str(), FIFO_MODE) != 0) {
        const int ret = -errno;
        TARVO_LOG(LOG_ERR, "Change the mode of fifo %s failed, ret=%d.", tempName.c_str(), ret);
        unlink(tempName.c_str());
        return ret;
    }
    SetGroup(tempName, tempName, gid);
    return 0;
}

// IsLink without a report, as for what may have gone again.
bool IsLinkNow(const std::string &name) {
    struct stat state;
    return GetFileState(name, state) == 0 && S_ISLNK(state.st_mode);
}

// Whether the file that another process has published under `name` meanwhile can be used: 0, -EACCES or -EINVAL.
int AdoptFifo(const std::string &name) {
    // A symbolic link is no FIFO either, but has a result of its own.
    if (IsFifoFile(name) != 0 && !IsLinkNow(name)) {
        TARVO_LOG(LOG_ERR, "Existing file %s is not fifo file.", name.c_str());
        return -EACCES;
    }
    if (IsLink(name) != 0) {
        TARVO_LOG(LOG_ERR, "Fifo file %s is a symbolic link.", name.c_str());
        return -EINVAL;
    }
    TARVO_LOG(LOG_INFO, "Fifo file %s already exists.", name.c_str());
    return 0;
}

// Makes the temporary FIFO appear under its final name, which link(2) does atomically and without replacing anything.
// The temporary name is gone afterwards.
int PublishFifo(const std::string &tempName, const std::string &name) {
    const int ret = link(tempName.c_str(), name.c_str()) == 0 ? 0 : -errno;
    unlink(tempName.c_str());
    if (ret == 0) {
        TARVO_LOG(LOG_INFO, "Create fifo success, file name=%s.", name.c_str());
        return 0;
    }
    if (ret == -EEXIST) {
        return AdoptFifo(name);
    }
    TARVO_LOG(LOG_ERR, "Link fifo %s to %s failed, ret=%d.", tempName.c_str(), name.c_str(), ret);
    return ret;
}

// A thread that waits in the open of a FIFO can be cancelled, whatever its own cancel state.
int OpenCancellably(const char *path, int flags) {
    if (Uncancelled::Active()) {
        // Inside an exported function, of whose opens none waits: they do not block, or are those of a FIFO that this
        // process reads itself. The C library loses the descriptor of an open that succeeds while its thread is being
        // cancelled.
        return open(path, flags);
    }
    int cancelState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &cancelState);
    const int fd = open(path, flags);
    const int error = errno;
    pthread_setcancelstate(cancelState, nullptr);
    errno = error;
    return fd;
}

// A failure that is ours to state and no system call's, reported as theirs are.
int Verdict(int error) {
    errno = error;
    return -error;
}

} // namespace

int CreateFifo(const std::string &name, uint32_t gid, int32_t targetPid, TarvoDomain domain,
               const std::string &targetCon) {
    // What an earlier run has left behind is always replaced.
    if (access(name.c_str(), F_OK) == 0) {
        unlink(name.c_str());
    }
    std::string tempName;
    int ret = MakeTempFifo(name, tempName);
    if (ret != 0) {
        return ret;
    }
    if (!IsOrlaDomainPipe(domain)) {
        ret = SetTempPermission(tempName, gid);
        if (ret != 0) {
            // Gone already; a second attempt is harmless.
            unlink(tempName.c_str());
            TARVO_LOG(LOG_ERR, "Set fifo permission failed fifo=%s, ret=%d.", name.c_str(), ret);
            return ret;
        }
    }
    LabelFifo(tempName, targetPid, domain, targetCon);
    ret = PublishFifo(tempName, name);
    if (ret != 0) {
        // Whatever has the name: also a dangling link, which access() would not see. That there is nothing is fine.
        unlink(name.c_str());
        TARVO_LOG(LOG_ERR, "Link tmp fifo to real fifo failed tmpfifo=%s, realfifo=%s ret=%d.", tempName.c_str(),
                  name.c_str(), ret);
        return ret;
    }
    if (!IsOrlaDomainPipe(domain)) {
        // Once more, for a FIFO that was adopted.
        SetGroup(name, tempName, gid);
    }
    return 0;
}

int OpenFifo(const std::string &name, int flags) {
    RealPathBuffer realPath;
    const int resolved = ResolveRealPath(name.c_str(), realPath);
    if (resolved != 0) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Transfer real path fail, path name=%s, ret=%d.", name.c_str(), resolved);
        return resolved;
    }
    const int fd = OpenCancellably(realPath, flags);
    const int error = errno;
    if (fd >= 0) {
        return fd;
    }
    if (error != ENXIO) {
        TARVO_LOG_RESTRAINED(LOG_ERR, "Open fifo %s fail, fd=%d, errno=%d.", name.c_str(), fd, error);
    }
    return -error;
}

int OpenPublishedFifo(const std::string &name, int flags) {
    struct stat before;
    const bool exists = GetFileState(name, before) == 0;
    if (exists && !S_ISFIFO(before.st_mode)) {
        TARVO_LOG(LOG_ERR, "File %s(mode=%u) exists but is not fifo file.", name.c_str(), before.st_mode);
        return Verdict(EACCES);
    }
    UniqueFd fd(OpenFifo(name, flags));
    if (fd.Get() < 0) {
        return fd.Get();
    }
    struct stat opened {};
    struct stat after;
    // The FIFO may be replaced by a new one at any time, before the open or after it.
    const bool isFifo = fstat(fd.Get(), &opened) == 0 && S_ISFIFO(opened.st_mode);
    if (isFifo && exists && IsSameFile(opened, before)) {
        return fd.Release();
    }
    const bool stillExists = GetFileState(name, after) == 0;
    if (isFifo && stillExists && IsSameFile(opened, after)) {
        return fd.Release();
    }
    fd.Reset();
    if (stillExists && !S_ISFIFO(after.st_mode)) {
        TARVO_LOG(LOG_ERR, "File %s(mode=%u) exists but is not fifo file.", name.c_str(), after.st_mode);
        return Verdict(EACCES);
    }
    // Gone again, or there is another FIFO by now than the one that a link or a file in its place led to.
    return Verdict(ENOENT);
}

int IsFifoFile(const std::string &path) {
    struct stat state;
    const int ret = GetFileState(path, state);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Get file %s state failed, ret=%d.", path.c_str(), ret);
        return ret;
    }
    if (!S_ISFIFO(state.st_mode)) {
        TARVO_LOG(LOG_ERR, "File %s(mode=%u) exists but is not fifo file.", path.c_str(), state.st_mode);
        return -EACCES;
    }
    return 0;
}

int AddFdToEpoll(int epfd, int fd, int data, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.fd = data;
    const int ret = epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event);
    if (ret != 0) {
        const int error = errno;
        TARVO_LOG(LOG_ERR, "Insert fd=%d to epoll-fd=%d failed, ret=%d, errno=%d.", fd, epfd, ret, error);
        return -error;
    }
    TARVO_LOG(LOG_INFO, "Insert to epoll fd(%d) success: fd = %d, ret = %d.", epfd, fd, ret);
    return 0;
}

int RemoveFdFromEpoll(int epfd, int fd) {
    const int ret = epoll_ctl(epfd, EPOLL_CTL_DEL, fd, nullptr);
    if (ret != 0) {
        const int error = errno;
        TARVO_LOG(LOG_ERR, "Remove fd=%d from epoll-fd=%d failed, ret=%d, errno=%d.", fd, epfd, ret, error);
        return -error;
    }
    TARVO_LOG(LOG_INFO, "Remove fd success. epoll_fd = %d, fd = %d, ret = %d.", epfd, fd, ret);
    return 0;
}
