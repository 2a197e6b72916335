#ifndef TARVO_BRIDGE_LOCAL_IMPORTEDSERVICE_H
#define TARVO_BRIDGE_LOCAL_IMPORTEDSERVICE_H

#include <cstdint>
#include <deque>
#include <string>

#include "core/LocalSide.h"
#include "loop/Loop.h"
#include "loop/PacketReader.h"
#include "loop/Poller.h"
#include "loop/ServiceFile.h"
#include "loop/Work.h"

namespace tarvo_bridge {

// The server file of an imported name: hears of clients, but makes nothing for them. That waits for the other machine.
// Owns: the file. Threads: that of the loop. Locks: none. Ends: Close(), or the loop.
class ImportedService final : public Member, public Watcher, public Work {
public:
    ImportedService(TarvoLoop &owner, std::string serviceName, LocalSide::Listener &clientListener);
    ~ImportedService() override;

    // 0, or a negated errno: -EADDRINUSE when a living server has the name.
    int Open();
    // Whether clients find it: anybody may remove the file, and a server of the same name replaces it.
    bool HasFile() const;
    void Close();

    bool Serve(int share, int &ran) override;
    void OnEvents(uint32_t what, uint32_t events) override;
    void OnLoopDestroyed() override;

private:
    void TakePacket(const ConnectPacket &packet);

    TarvoLoop &loop;
    const std::string name;
    LocalSide::Listener &listener;
    ServiceFile file;
    Watch watch;
    PacketReader packets;
    std::deque<LocalClient> clients; // of whom nobody was told yet
    bool closed = false;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_LOCAL_IMPORTEDSERVICE_H
