#include "fifo/check_file_attr.h"

#include <cerrno>

#include "base/bounded.h"
#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "check_file_attr";

} // namespace

int GetFileState(const std::string &path, struct stat &state) {
    // With these bounds it cannot fail, and compiles to the clearing alone. The line stays promised.
    const int cleared = memset_s(&state, sizeof(state), 0, sizeof(state));
    if (cleared != 0) {
        TARVO_LOG(LOG_ERR, "Function memset_s failed, ret=%d.", cleared);
        return -cleared;
    }
    return lstat(path.c_str(), &state) == 0 ? 0 : -errno;
}

int IsLink(const std::string &path) {
    struct stat state;
    const int ret = GetFileState(path, state);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Get the state of file %s failed, ret=%d.", path.c_str(), ret);
        return ret;
    }
    if (S_ISLNK(state.st_mode)) {
        TARVO_LOG(LOG_ERR, "File %s is a symbolic link.", path.c_str());
        return -EINVAL;
    }
    return 0;
}
