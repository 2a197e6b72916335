#include "fifo/velm_check.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/UniqueFd.h"
#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "velm_check";
constexpr std::size_t CHUNK_SIZE = 1024;

void CloseConfigFile(UniqueFd &file) {
    const int ret = file.Close();
    if (ret < 0) {
        TARVO_LOG_AS(LOG_TYPE_VELM, LOG_ERR, "Close Config file fail: ret=%d.", ret);
    }
}

// Appends at most one chunk to `out`; what read returned.
int LoadChunk(int fd, std::stringstream &out) {
    char chunk[CHUNK_SIZE];
    const ssize_t ret = read(fd, chunk, sizeof(chunk) - 1);
    if (ret > 0) {
        chunk[ret] = '\0';
        out << chunk;
    }
    return static_cast<int>(ret);
}

int LoadOpenFile(int fd, std::stringstream &out) {
    int ret = LoadChunk(fd, out);
    if (ret <= 0) {
        TARVO_LOG_AS(LOG_TYPE_VELM, LOG_ERR, "Read Config file fail: ret=%d, errno=%d.", ret, errno);
        return -1;
    }
    while (ret > 0) {
        ret = LoadChunk(fd, out);
    }
    if (ret < 0) {
        TARVO_LOG_AS(LOG_TYPE_VELM, LOG_ERR, "Read Config file fail: ret=%d.", ret);
        return -1;
    }
    return 0;
}

} // namespace

int CheckInputName(const char *name, std::size_t length, std::size_t maxLength) {
    if (name == nullptr) {
        TARVO_LOG(LOG_ERR, "The input parameter target process-name is NULL.");
        return -EINVAL;
    }
    if (length == 0) {
        TARVO_LOG(LOG_ERR, "Length of process name is invalid, value=0, range(0, %zu]", maxLength);
        return -EINVAL;
    }
    if (length > maxLength) {
        TARVO_LOG(LOG_ERR, "Length of process name is invalid, value=%zu, range(0, %zu]", length, maxLength);
        return -EINVAL;
    }
    const std::size_t measured = std::strlen(name);
    if (measured != length) {
        TARVO_LOG(LOG_ERR, "Length of process name(value=%zu) is not equal to the length of target process(value=%zu)",
                  length, measured);
        return -EINVAL;
    }
    return 0;
}

int ResolveRealPath(const char *path, RealPathBuffer &resolved) {
    std::memset(resolved, 0, sizeof(resolved));
    if (realpath(path, resolved) == nullptr) {
        return -errno;
    }
    const std::size_t length = strnlen(resolved, sizeof(resolved));
    if (length == 0) {
        return -EINVAL;
    }
    return length == sizeof(resolved) ? -ENAMETOOLONG : 0;
}

int TransferToRealPath(std::string &path) {
    RealPathBuffer resolved;
    const int ret = ResolveRealPath(path.c_str(), resolved);
    if (ret == 0) {
        path = resolved;
    }
    return ret;
}

int LoadFile(const std::string &path, std::stringstream &out) {
    RealPathBuffer resolved;
    const int ret = ResolveRealPath(path.c_str(), resolved);
    if (ret != 0) {
        TARVO_LOG_AS(LOG_TYPE_VELM, LOG_ERR, "Transfer RealPath fail err=%d.", ret);
        return ret;
    }
    UniqueFd file(open(resolved, O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0) {
        TARVO_LOG_AS(LOG_TYPE_VELM, LOG_ERR, "Open Config file %s failed.", path.c_str());
        return -1;
    }
    const int loaded = LoadOpenFile(file.Get(), out);
    // A file that was read whole stays loaded, whatever becomes of its descriptor.
    CloseConfigFile(file);
    return loaded;
}
