#include "loop/ServiceFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "diag/velm_syslog.h"
#include "fifo/velm_fifo.h"
#include "loop/Files.h"

namespace {

constexpr char LOG_TAG[] = "ServiceFile";
// How often a start whose file another server has replaced meanwhile begins anew.
constexpr int MAX_STARTS_OVER = 3;

} // namespace

int ServiceFile::Open(const std::string &path, uint32_t gid, bool replace) {
    name = path;
    for (int startsOver = 0; startsOver <= MAX_STARTS_OVER; ++startsOver) {
        if (!replace && IsServed()) {
            return -EADDRINUSE;
        }
        const int ret = Publish(gid);
        if (ret != 0) {
            return ret;
        }
        if (HoldsBothEnds()) {
            // Two processes that start at the same moment can end up on the same file; the lock leaves it to one.
            const int locked = flock(readEnd.Get(), LOCK_EX | LOCK_NB) == 0 ? 0 : -errno;
            if (locked == 0) {
                return 0;
            }
            if (locked != -EWOULDBLOCK) {
                Close();
                return locked;
            }
            break;
        }
        // Another server of this name has started meanwhile and put its file there.
        CloseEnds();
    }
    CloseEnds();
    TARVO_LOG(LOG_ERR, "Server %s has lost its file to another.", name.c_str());
    return -EADDRINUSE;
}

bool ServiceFile::IsServed() const {
    if (access(name.c_str(), F_OK) != 0) {
        return false;
    }
    const UniqueFd reader(OpenEnd(name, O_WRONLY));
    return reader.Get() >= 0;
}

int ServiceFile::Publish(uint32_t gid) {
    const int ret = CreateFifo(name, gid, -1, TARVO_DOMAIN_LOCAL, "");
    if (ret != 0) {
        return ret;
    }
    int fd = OpenEnd(name, O_RDONLY);
    if (fd < 0) {
        if (fd != -ENOENT) {
            unlink(name.c_str());
        }
        return fd == -ENOENT ? 0 : fd;
    }
    readEnd = UniqueFd(fd);
    fd = OpenEnd(name, O_WRONLY);
    // Without a reader or gone, the file that was found is not the one whose read end we have.
    if (fd >= 0 || fd == -ENXIO || fd == -ENOENT) {
        writeEnd = UniqueFd(fd < 0 ? -1 : fd);
        return 0;
    }
    Close();
    return fd;
}

bool ServiceFile::HoldsBothEnds() const {
    return StandsUnder(readEnd.Get(), name) && StandsUnder(writeEnd.Get(), name);
}

void ServiceFile::CloseEnds() {
    writeEnd.Reset();
    readEnd.Reset();
}

void ServiceFile::Close() {
    if (readEnd.Get() >= 0) {
        RemoveOwnFile(readEnd.Get(), name);
    }
    CloseEnds();
}
