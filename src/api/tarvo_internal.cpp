#include <cerrno>
#include <memory>

#include "api/EnvManager.h"
#include "api/TableFactory.h"
#include "api/tarvo_check.h"
#include "base/NoThrow.h"
#include "base/ProcessOwner.h"
#include "diag/velm_syslog.h"
#include "table/TarvoTable.h"
#include "tarvo.h"

namespace {

constexpr char LOG_TAG[] = "tarvo_internal";

} // namespace

TarvoDomain GetCurrDomain(void) {
    const int hostName = EnvManager::HostName();
    if (hostName == TARVO_DOMAIN_DP || hostName == TARVO_DOMAIN_ORLA) {
        return static_cast<TarvoDomain>(hostName);
    }
    TARVO_LOG(LOG_ERR, "Failed to get current domain, default domain is set.");
    return TARVO_DOMAIN_LOCAL;
}

bool IsOrlaDomainPipe(const TarvoDomain &domain) {
    return GetCurrDomain() == TARVO_DOMAIN_ORLA && (domain == TARVO_DOMAIN_LOCAL || domain == TARVO_DOMAIN_ORLA);
}

bool IsCrossDomainPipe(const TarvoDomain &domain) { return domain != TARVO_DOMAIN_LOCAL && domain != GetCurrDomain(); }

int TarvoPipeTypeOpen(TarvoAttr *attr, TarvoPipeType type) {
    return NoThrow([attr, type] {
        // Also on the way from TarvoOpen, which has checked it: programs call this function too, and the two lines tell
        // operators which of them refused.
        if (attr == nullptr || CheckInputPipeAttr(*attr) != 0) {
            TARVO_LOG(LOG_ERR, "Input variables error.");
            return -EINVAL;
        }
        ProcessOwner::Claim();
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        if (!table) {
            TARVO_LOG(LOG_INFO, "TarvoPipeTypeOpen unfinished, because table is destroyed");
            return -ENOENT;
        }
        const int fd = table->MakeAndAddPipe(attr, type);
        if (fd < 0) {
            TARVO_LOG_RESTRAINED(
                LOG_WARNING,
                "OpenPipe unfinished fd=%d, Name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, self=%s", fd,
                attr->targetName, attr->mode, attr->timeout, attr->targetPid, attr->priority, attr->isConcur, attr->gid,
                attr->selfName != nullptr ? attr->selfName : "(null)");
        } else {
            TARVO_LOG(LOG_INFO,
                      "TarvoOpen success fd=%d, Name=%s, mode=%d, t=%d, pid=%d, pr=%d, isC=%d, gid=%u, self=%s", fd,
                      attr->targetName, attr->mode, attr->timeout, attr->targetPid, attr->priority, attr->isConcur,
                      attr->gid, attr->selfName);
        }
        return fd;
    });
}

int TarvoServiceIsExist(void) {
    const int exists = NoThrow([] {
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        return table && !table->GetIsDisable() ? 1 : 0;
    });
    return exists == 1 ? 1 : 0;
}
