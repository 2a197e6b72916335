#include "fifo/fifo_label.h"

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "fifo/security_context.h"

namespace {

// These lines belong to the creation of a FIFO, the rest of which is in velm_fifo.cpp.
constexpr char LOG_TAG[] = "velm_fifo";

void LabelWithTargetContext(const std::string &path, const std::string &targetCon) {
    const int ret = AuthSetFileCon(path.c_str(), targetCon.c_str());
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "[single domain] The ret of restorecon for file %s is %d, targetCon is %s", path.c_str(),
                  ret, targetCon.c_str());
    }
}

void LabelLikeProcess(const std::string &path, int32_t targetPid) {
    char *con = nullptr;
    if (AuthGetPidCon(targetPid, &con) < 0 || con == nullptr) {
        TARVO_LOG_AS(LOG_TYPE_VELM, LOG_ERR, "[single domain] Get pid context failed, inName=%s, targetPid=%d.",
                     path.c_str(), targetPid);
        return;
    }
    const int ret = AuthSetFileCon(path.c_str(), con);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "[single domain] The ret of restorecon for file %s is %d, pipeContext is %s", path.c_str(),
                  ret, con);
    }
    AuthFreeCon(con);
}

void LabelSingleDomain(const std::string &path, int32_t targetPid, const std::string &targetCon) {
    TARVO_LOG(LOG_INFO, "velm_fifo: single domain restore context.");
    TARVO_LOG(LOG_INFO,
              "[single domain] resorecon, access contexts for %s, curHostName is %d, pid is %d, context is %s.",
              path.c_str(), EnvManager::HostName(), targetPid, targetCon.c_str());
    TARVO_LOG(LOG_INFO, "[single domain] TryResorecon enter, inName=%s, targetPid=%d. targetCon=%s", path.c_str(),
              targetPid, targetCon.c_str());
    if (IsAuthEnabled() <= 0) {
        TARVO_LOG(LOG_INFO, "[single domain] Auth is disabled.");
        return;
    }
    if (targetPid < 0 && targetCon.empty()) {
        TARVO_LOG(LOG_WARNING, "[single domain] No need SetFileCon, inName=%s, targetPid=%d. targetCon=%s",
                  path.c_str(), targetPid, targetCon.c_str());
        return;
    }
    if (CheckContextsAccess() != 0) {
        TARVO_LOG(LOG_WARNING, "[single domain] Can not access contexts for %s, maybe auth policy is installed wrong.",
                  path.c_str());
        return;
    }
    if (!targetCon.empty()) {
        LabelWithTargetContext(path, targetCon);
    } else {
        LabelLikeProcess(path, targetPid);
    }
}

void LabelWithFullContext(const std::string &path, TarvoDomain domain, const std::string &targetCon) {
    const int ret = AuthSelinuxSetFileCon(path.c_str(), targetCon.c_str());
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "[cross domain] The ret of restorecon for file %s is %d. domain is %d, targetCon is %s",
                  path.c_str(), ret, domain, targetCon.c_str());
    }
}

void LabelWithVornContext(const std::string &path, int hostName, const std::string &targetCon) {
    char *fullCon = nullptr;
    if (GetSelinuxConByVornCon(targetCon.c_str(), &fullCon) < 0 || fullCon == nullptr) {
        TARVO_LOG(LOG_ERR, "Convert context failed!");
        return;
    }
    TARVO_LOG(LOG_INFO, "[cross domain] targetCon convert result is %s", fullCon);
    const int ret = AuthSelinuxSetFileCon(path.c_str(), fullCon);
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "[cross domain] The ret of restorecon for file %s is %d. curHostName is %d, context is %s",
                  path.c_str(), ret, hostName, fullCon);
    }
    AuthProxyFree(fullCon);
}

void LabelCrossDomain(const std::string &path, TarvoDomain domain, const std::string &targetCon) {
    const int hostName = EnvManager::HostName();
    TARVO_LOG(LOG_INFO, "velm_fifo: cross domain restore context.");
    TARVO_LOG(LOG_INFO, "[cross domain] TryResorecon, access contexts for %s, curHostName is %d, targetCon is %s",
              path.c_str(), hostName, targetCon.c_str());
    if (targetCon.empty()) {
        TARVO_LOG(LOG_INFO, "[cross domain] targetCon is empty, inName is %s.", path.c_str());
        return;
    }
    if (IsAuthEnabled() <= 0) {
        TARVO_LOG(LOG_INFO, "[cross domain] auth is disabled, inName is %s.", path.c_str());
        return;
    }
    if (CheckContextsAccess() != 0) {
        TARVO_LOG(LOG_WARNING, "[cross domain] Auth Can not access contexts for %s. curHostName is %d", path.c_str(),
                  hostName);
        return;
    }
    if (hostName == TARVO_DOMAIN_ORLA) {
        LabelWithFullContext(path, domain, targetCon);
    } else {
        LabelWithVornContext(path, hostName, targetCon);
    }
}

} // namespace

void LabelFifo(const std::string &path, int32_t targetPid, TarvoDomain domain, const std::string &targetCon) {
    if (domain == TARVO_DOMAIN_LOCAL || domain == EnvManager::HostName()) {
        LabelSingleDomain(path, targetPid, targetCon);
    } else {
        LabelCrossDomain(path, domain, targetCon);
    }
}
