// What a connection is made of: construction, names, identity and destruction.
#include "pipe/TarvoPipeImpl.h"

#include <system_error>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "TarvoPipeImpl";
constexpr char HEARTBEAT_MARK[] = "_heartbeat";
constexpr char FIFO_NAME_SEPARATOR[] = "__to__";
constexpr std::size_t FIFO_NAME_LIMIT = 255;

} // namespace

TarvoPipeImpl::TarvoPipeImpl(const TarvoAttr &attr, PipeObserver &tableObserver)
    : myName(attr.selfName != nullptr ? attr.selfName : EnvManager::ProcName()), remoteName(attr.targetName),
      observer(tableObserver), targetCon(attr.targetCon != nullptr ? attr.targetCon : ""),
      serviceHandler(attr.callback), timeout(attr.timeout), mode(attr.mode), gid(attr.gid), priority(attr.priority),
      targetPid(attr.targetPid), isConcur(attr.isConcur), domain(attr.domain),
      monitorType(InitDataMonitorType(attr.priority, attr.domain)),
      isHeartbeat(myName.find(HEARTBEAT_MARK) != std::string::npos) {
    AssembleFifoNames();
}

TarvoPipeImpl::~TarvoPipeImpl() {
    try {
        stats.Dropped(TARVO_STATS_DROP_CLOSING, cachedRequests);
        DeInitPipe();
    } catch (const std::system_error &error) {
        TARVO_LOG(LOG_INFO, "outReqList disable unfinished, system error: %s", error.what());
    } catch (...) {
        TARVO_LOG(LOG_INFO, "outReqList disable unfinished");
    }
}

DataMonitorType TarvoPipeImpl::InitDataMonitorType(TarvoPriority prio, TarvoDomain targetDomain) const {
    const bool remoteMonitors = IsCrossDomainPipe(targetDomain) && GetCurrDomain() == TARVO_DOMAIN_ORLA;
    const DataMonitorType first = remoteMonitors ? 3 : 0;
    switch (prio) {
    case TARVO_PRIORITY_NONE:
        return first;
    case TARVO_PRIORITY_URGENT:
        return first + 2;
    default:
        return first + 1;
    }
}

std::string TarvoPipeImpl::AssembleFifoName(const std::string &from, const std::string &to,
                                            TarvoDomain targetDomain) const {
    std::string prefix = EnvManager::FifoPrefix();
    if (IsOrlaDomainPipe(targetDomain)) {
        prefix = EnvManager::OrlaFifoDirPrefix() + prefix;
    }
    if (prefix.empty()) {
        TARVO_LOG(LOG_ERR, "FIFO_PREFIX is NULL");
        return "";
    }
    std::string path = prefix + from + FIFO_NAME_SEPARATOR + to;
    // The whole path counts, not only its last component.
    if (path.size() >= FIFO_NAME_LIMIT) {
        TARVO_LOG(LOG_ERR, "file name %s's lenth %lu is more than system NAME_MAX %d", path.c_str(), path.size(),
                  static_cast<int>(FIFO_NAME_LIMIT));
        return "";
    }
    return path;
}

void TarvoPipeImpl::AssembleFifoNames() {
    writeFifoName = AssembleFifoName(myName, remoteName, domain);
    readFifoName = AssembleFifoName(remoteName, myName, domain);
}

TarvoPipeImpl::ServiceHandler TarvoPipeImpl::GetServiceHandler() const { return serviceHandler; }
