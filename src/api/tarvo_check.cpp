#include "api/tarvo_check.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_check.h"

namespace {

constexpr char LOG_TAG[] = "tarvo_check";

// Substrings, not characters. Some contain others: intended, the list is kept as it was agreed.
constexpr std::array<std::string_view, 13> BLACK_LIST = {"|",  ";", ">", "<", ">>", "`", "||",
                                                         "&&", "&", "(", ")", "$",  ".."};

// A name that is too long measures MAX_NAME_LENGTH + 1, which is refused.
bool IsNameLengthValid(const char *name) {
    return CheckInputName(name, strnlen(name, MAX_NAME_LENGTH + 1), MAX_NAME_LENGTH) == 0;
}

} // namespace

bool BlackListCheck(const char *name) {
    const std::string_view text = name;
    return std::any_of(BLACK_LIST.begin(), BLACK_LIST.end(),
                       [text](std::string_view entry) { return text.find(entry) != std::string_view::npos; });
}

int CheckInputSelfNameAndPriority(const char *selfName, TarvoPriority priority) {
    const char *name = selfName != nullptr ? selfName : EnvManager::ProcName();
    if (!IsNameLengthValid(name)) {
        TARVO_LOG(LOG_ERR, "Intput selfName is not valid.");
        return -EINVAL;
    }
    if (BlackListCheck(name)) {
        // The caller's argument also where the process name was refused.
        TARVO_LOG(LOG_ERR, "Intput selfName=%s is not valid.", selfName != nullptr ? selfName : "(null)");
        return -EINVAL;
    }
    if (static_cast<uint32_t>(priority) > TARVO_PRIORITY_URGENT) {
        TARVO_LOG(LOG_ERR, "Intput attr priority is not valid, prio=%d.", priority);
        return -EINVAL;
    }
    return 0;
}

int CheckInputPipeAttr(const TarvoAttr &attr) {
    if (attr.targetName == nullptr || !IsNameLengthValid(attr.targetName)) {
        TARVO_LOG(LOG_ERR, "Intput targetName is not valid.");
        return -EINVAL;
    }
    if (BlackListCheck(attr.targetName)) {
        TARVO_LOG(LOG_ERR, "Intput targetName=%s is not valid.", attr.targetName);
        return -EINVAL;
    }
    if (static_cast<uint32_t>(attr.mode) > TARVO_MODE_SERVER) {
        TARVO_LOG(LOG_ERR, "Intput mode=%d is not valid.", attr.mode);
        return -EINVAL;
    }
    return CheckInputSelfNameAndPriority(attr.selfName, attr.priority);
}

int CheckInputServerAttr(const TarvoServerAttr &attr) {
    return CheckInputSelfNameAndPriority(attr.selfName, attr.priority);
}
