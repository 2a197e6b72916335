#include <cerrno>
#include <memory>

#include "api/EnvManager.h"
#include "api/TableFactory.h"
#include "api/tarvo_check.h"
#include "base/NoThrow.h"
#include "base/ProcessOwner.h"
#include "diag/velm_syslog.h"
#include "stats/Stats.h"
#include "stats/StatsFile.h"
#include "table/TarvoTable.h"
#include "tarvo.h"
#include "worker/PoolStats.h"

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

namespace {

// One open from here on, also one that ends for want of memory.
// Owns: nothing. Threads: the caller's. Locks: none. Ends: with the open.
class CountedOpen {
public:
    // What is counted in this process is decided by the first one.
    CountedOpen() : file(StatsFile::Get()), begunAt(file != nullptr ? Stats::Now() : 0) {
        if (file != nullptr) {
            PoolStats::Begin();
            file->MakeRoom();
        }
    }
    ~CountedOpen() {
        if (file == nullptr) {
            return;
        }
        TarvoStatsHeader &header = file->Header();
        Stats::Count(header.opens[Stats::OpenEndOf(result)]);
        if (result >= 0) {
            Stats::Time(header.openTime, Stats::Between(begunAt, Stats::Now()));
        }
    }
    CountedOpen(const CountedOpen &) = delete;
    CountedOpen &operator=(const CountedOpen &) = delete;

    int Ended(int opened) { return result = opened; }

private:
    StatsFile *const file;
    const uint64_t begunAt;
    int result = -ENOMEM;
};

int OpenCounted(TarvoTable &table, const TarvoAttr *attr, TarvoPipeType type) {
    CountedOpen open;
    return open.Ended(table.MakeAndAddPipe(attr, type));
}

} // namespace

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
        const int fd = OpenCounted(*table, attr, type);
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
