#ifndef TARVO_BRIDGE_LOCAL_SERVERWATCH_H
#define TARVO_BRIDGE_LOCAL_SERVERWATCH_H

#include <cstdint>
#include <string>
#include <string_view>

#include "base/UniqueFd.h"
#include "core/LocalSide.h"
#include "loop/DirectoryWatch.h"
#include "loop/Loop.h"
#include "loop/Poller.h"
#include "loop/Timers.h"
#include "loop/Work.h"

namespace tarvo_bridge {

// Whether a server of this machine lives: holds a write end of its file, which tells when nobody reads that any more,
// and is told of the files that come into the directory. It writes nothing.
// Owns: the write end. Threads: that of the loop. Locks: none. Ends: before the loop.
class ServerWatch final : public Watcher, public FileWaiter, public Work, public Timer {
public:
    ServerWatch(TarvoLoop &owner, std::string watchedName, LocalSide::Listener &watchListener);
    ~ServerWatch() override;

    bool Serve(int share, int &ran) override;
    void OnEvents(uint32_t what, uint32_t events) override;
    void OnFileChanged(std::string_view changed) override;
    void OnTimer() override;

private:
    void Look();
    void LookLater();

    TarvoLoop &loop;
    const std::string name;
    const std::string file;
    LocalSide::Listener &listener;
    UniqueFd writeEnd;
    Watch watch;
    int64_t retryUs = 0;
    bool told = false;
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_LOCAL_SERVERWATCH_H
