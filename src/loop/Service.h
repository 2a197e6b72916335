#ifndef TARVO_LOOP_SERVICE_H
#define TARVO_LOOP_SERVICE_H

#include <cstdint>
#include <string>

#include "loop/Loop.h"
#include "loop/PacketReader.h"
#include "loop/Poller.h"
#include "loop/ServiceFile.h"
#include "stats/StatsSlot.h"
#include "tarvo_loop.h"

// A server of a loop: reads who announces itself, and opens a link to each.
// Owns: its FIFO; the links until the program is told of them, but then the loop does. Threads: that of the loop.
// Locks: none. Ends: Close(), or the loop.
struct TarvoService final : public Member, public Watcher {
public:
    TarvoService(TarvoLoop &owner, const TarvoServiceOptions &serviceOptions, const TarvoLinkCallbacks &linkCallbacks,
                 std::string &&serviceName);
    ~TarvoService() override = default;

    TarvoLoop &Loop() { return loop; }
    // 0, -EADDRINUSE, or a negated errno.
    int Open();
    void Close();

    // For its links: one is open. Returns whether a callback was called.
    bool TellClient(TarvoLink &link);
    // One is closed before the program was told of it.
    void Forget(TarvoLink &link);
    // The open of one has ended, `ns` after its packet.
    void CountOpen(bool isOpen, uint64_t ns);

    void OnEvents(uint32_t what, uint32_t events) override;
    void OnLoopDestroyed() override;

private:
    void ReadPackets();
    void CountPackets(uint64_t connects);
    void OpenLink(const ConnectPacket &packet);
    void StopListening();

    TarvoLoop &loop;
    TarvoServiceOptions options;
    TarvoLinkCallbacks callbacks;
    const std::string name;
    ServiceFile file;
    Watch watch;
    PacketReader packets;
    StatsSlot slot;
    TarvoLink *firstOpening = nullptr;
};

#endif // TARVO_LOOP_SERVICE_H
