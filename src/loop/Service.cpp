#include "loop/Service.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "api/tarvo_check.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_check.h"
#include "loop/Link.h"
#include "stats/Stats.h"

namespace {

constexpr char LOG_TAG[] = "Service";

// How long the link of a client may take to open, in ms.
constexpr int32_t OPEN_TIMEOUT = 2000;

bool IsEmpty(int fifo) {
    int left = 0;
    return ioctl(fifo, FIONREAD, &left) == 0 && left == 0;
}

} // namespace

TarvoService::TarvoService(TarvoLoop &owner, const TarvoServiceOptions &serviceOptions,
                           const TarvoLinkCallbacks &linkCallbacks, std::string &&serviceName)
    : loop(owner), options(serviceOptions), callbacks(linkCallbacks), name(std::move(serviceName)) {}

int TarvoService::Open() {
    int ret = file.Open(EnvManager::FifoPrefix() + name, options.gid, options.replace != 0);
    if (ret != 0) {
        return ret;
    }
    ret = loop.Events().Add(file.ReadFd(), EPOLLIN, *this, 0, watch);
    if (ret != 0) {
        file.Close();
        return ret;
    }
    slot = StatsSlot({TARVO_STATS_SERVER, TARVO_STATS_LOOP, 0, name, {}});
    slot.Opened();
    return 0;
}

void TarvoService::OnEvents(uint32_t /*what*/, uint32_t /*events*/) { ReadPackets(); }

void TarvoService::ReadPackets() {
    char *const bytes = loop.Scratch();
    const ssize_t count = read(file.ReadFd(), bytes, TarvoLoop::SCRATCH_SIZE);
    if (count <= 0) {
        return;
    }
    packets.Feed(bytes, static_cast<std::size_t>(count));
    ConnectPacket packet{};
    uint64_t connects = 0;
    for (auto found = packets.Next(packet); found != PacketReader::Found::NOTHING; found = packets.Next(packet)) {
        if (found == PacketReader::Found::TERMINATE) {
            TARVO_LOG(LOG_INFO, "Read terminate info, server %s ends.", name.c_str());
            StopListening();
            file.CloseEnds();
            CountPackets(connects);
            return;
        }
        ++connects;
        OpenLink(packet);
    }
    if (static_cast<std::size_t>(count) < TarvoLoop::SCRATCH_SIZE || IsEmpty(file.ReadFd())) {
        packets.EndOfRead();
    }
    CountPackets(connects);
}

void TarvoService::CountPackets(uint64_t connects) {
    const uint64_t bad = packets.TakeBad();
    if (TarvoStatsServer *const counted = slot.Server()) {
        Stats::CountAlone(counted->packets, connects);
        Stats::CountAlone(counted->bad, bad);
    }
}

void TarvoService::CountOpen(bool isOpen, uint64_t ns) {
    TarvoStatsServer *const counted = slot.Server();
    if (counted == nullptr) {
        return;
    }
    Stats::CountAlone(isOpen ? counted->opened : counted->failed);
    if (isOpen) {
        Stats::TimeAlone(counted->openTime, ns);
    }
}

void TarvoService::OpenLink(const ConnectPacket &packet) {
    int ret = -ENOMEM;
    try {
        LinkSpec spec{name,
                      std::string(packet.name),
                      true,
                      false,
                      packet.gid,
                      packet.pid,
                      loop.Patient(OPEN_TIMEOUT),
                      options.context,
                      callbacks,
                      this};
        ret = -EINVAL;
        if (CheckInputName(spec.target.c_str(), spec.target.size(), MAX_NAME_LENGTH) == 0 &&
            !BlackListCheck(spec.target.c_str())) {
            ret = TarvoLink::OpenForClient(loop, std::move(spec), firstOpening);
        }
    } catch (const std::bad_alloc &) {
        ret = -ENOMEM;
    }
    if (ret != 0) {
        TARVO_LOG(LOG_ERR, "Open link of a client of %s failed %d.", name.c_str(), ret);
        CountOpen(false, 0);
    }
}

bool TarvoService::TellClient(TarvoLink &link) {
    Forget(link);
    if (options.client == nullptr) {
        return false;
    }
    options.client(options.context, this, &link, link.Peer());
    return true;
}

void TarvoService::Forget(TarvoLink &link) {
    (link.previousOfService != nullptr ? link.previousOfService->nextOfService : firstOpening) = link.nextOfService;
    if (link.nextOfService != nullptr) {
        link.nextOfService->previousOfService = link.previousOfService;
    }
    link.nextOfService = nullptr;
    link.previousOfService = nullptr;
    link.LeaveService();
}

void TarvoService::StopListening() { loop.Events().Remove(watch); }

void TarvoService::Close() {
    StopListening();
    file.Close();
    slot.Closed();
    while (firstOpening != nullptr) {
        TarvoLink &link = *firstOpening;
        Forget(link);
        if (link.IsOpening()) {
            CountOpen(false, 0);
        }
        link.Close();
    }
    loop.Bury(*this);
}

void TarvoService::OnLoopDestroyed() {
    StopListening();
    file.Close();
    slot.Closed();
}
