#include "local/ServerWatch.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "api/EnvManager.h"
#include "loop/Files.h"
#include "loop/Moments.h"

namespace tarvo_bridge {
namespace {

// A server makes its file, and then opens it.
constexpr int64_t FIRST_RETRY_US = 500;
constexpr int64_t LONGEST_RETRY_US = 1000000;

} // namespace

ServerWatch::ServerWatch(TarvoLoop &owner, std::string watchedName, LocalSide::Listener &watchListener)
    : loop(owner), name(std::move(watchedName)), file(EnvManager::FifoPrefix() + name), listener(watchListener) {
    // Before the first look: what comes between that and the wait is told.
    loop.Directory().Add(*this);
    Look();
    loop.SettleTimers();
}

ServerWatch::~ServerWatch() {
    loop.Directory().Remove(*this);
    loop.Clock().Disarm(*this);
    loop.Events().Remove(watch);
    WorkQueue::Remove(*this);
}

void ServerWatch::Look() {
    if (writeEnd.Get() >= 0) {
        if (StandsUnder(writeEnd.Get(), file)) {
            return;
        }
        // A new server has taken the name.
        loop.Events().Remove(watch);
        writeEnd.Reset();
    }
    const int fd = OpenEnd(file, O_WRONLY);
    if (fd >= 0) {
        writeEnd = UniqueFd(fd);
        if (loop.Events().Add(fd, 0, *this, 0, watch) != 0) {
            writeEnd.Reset();
        }
    }
    if (writeEnd.Get() >= 0) {
        retryUs = 0;
        loop.Clock().Disarm(*this);
    } else if (fd != -ENOENT || !loop.Directory().IsWatching() || name.find('/') != std::string::npos) {
        LookLater();
    }
    if ((writeEnd.Get() >= 0) != told) {
        loop.Queue(*this);
    }
}

void ServerWatch::LookLater() {
    retryUs = std::clamp(retryUs * 2, FIRST_RETRY_US, LONGEST_RETRY_US);
    loop.Clock().Arm(*this, Now() + retryUs);
}

void ServerWatch::OnTimer() { Look(); }

void ServerWatch::OnEvents(uint32_t /*what*/, uint32_t /*events*/) {
    loop.Events().Remove(watch);
    writeEnd.Reset();
    Look();
    // Also when another server is there already: the one that was known is not.
    loop.Queue(*this);
}

void ServerWatch::OnFileChanged(std::string_view changed) {
    if (changed.empty() || changed == name) {
        retryUs = 0;
        Look();
    }
}

bool ServerWatch::Serve(int /*share*/, int &ran) {
    const bool lives = writeEnd.Get() >= 0;
    if (lives != told) {
        told = lives;
        ++ran;
        listener.OnServer(name, lives);
    }
    return false;
}

} // namespace tarvo_bridge
