#include "loop/Opening.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "fifo/velm_fifo.h"
#include "loop/Files.h"
#include "loop/Loop.h"
#include "loop/Moments.h"
#include "server/PipeServerMessage.h"

namespace {

constexpr char LOG_TAG[] = "Opening";
constexpr int64_t FIRST_RETRY_US = 50;
// A remote that speaks first is heard before that.
constexpr int64_t FIRST_SERVER_RETRY_US = 500;
constexpr int64_t LONGEST_RETRY_US = 20000;
constexpr int64_t LONGEST_LEFTOVER_RETRY_US = 2000;
// How long the files of an earlier link may keep the next one of the same names waiting.
constexpr int64_t LEFTOVER_LIMIT_US = 100000;

bool Exists(const std::string &file) { return access(file.c_str(), F_OK) == 0; }

// Names may lead into directories below it.
bool IsInFifoDirectory(const std::string &file) { return file.rfind('/') + 1 == EnvManager::FifoPrefix().size(); }

// Whether `name` is the last part of the path `file`.
bool IsNameOf(std::string_view name, const std::string &file) {
    return file.size() > name.size() && file[file.size() - name.size() - 1] == '/' &&
           file.compare(file.size() - name.size(), name.size(), name) == 0;
}

} // namespace

Opening::Opening(TarvoLoop &owner, OpeningPlan &&openingPlan, Listener &openingListener)
    : loop(owner), plan(std::move(openingPlan)), listener(openingListener), retryUs(FIRST_RETRY_US),
      deadline(*this, &Opening::OnDeadline), retry(*this, &Opening::OnRetry) {}

Opening::~Opening() { Abandon(); }

// A step that runs out of memory fails like one that the system refuses.
template <typename Body>
void Opening::Guarded(Body body) {
    int ret = -ENOMEM;
    try {
        ret = body();
    } catch (const std::bad_alloc &) {
        ret = -ENOMEM;
    }
    if (ret < 0 && step != Step::DONE) {
        Fail(ret);
    }
    loop.SettleTimers();
}

void Opening::Begin() {
    Guarded([this] { return Start(); });
}

int Opening::Start() {
    if (plan.timeoutMs >= 0 && !loop.Clock().Arm(deadline, DeadlineIn(plan.timeoutMs))) {
        return -ENOMEM;
    }
    if (plan.makesFiles) {
        return MakeFiles();
    }
    if (!plan.serverFile.empty() && IsFifoFile(plan.serverFile) != 0) {
        return -ENXIO;
    }
    return StartWaiting();
}

int Opening::StartWaiting() {
    // Before the first look: what comes between that and the wait is told.
    loop.Directory().Add(*this);
    step = plan.serverFile.empty() ? Step::FILES : Step::LEFTOVERS;
    leftoverEnd = Now() + LEFTOVER_LIMIT_US;
    Advance();
    return 0;
}

// Goes on as far as it can.
void Opening::Advance() {
    Guarded([this] {
        int ret = 0;
        if (step == Step::LEFTOVERS) {
            if (!LeftoversGone()) {
                return RetryLater();
            }
            step = Step::ANNOUNCE;
        }
        if (step == Step::ANNOUNCE) {
            ret = Announce();
            if (ret != 0) {
                return ret == -EAGAIN ? RetryLater() : ret;
            }
            step = Step::FILES;
            retryUs = FIRST_RETRY_US;
            // Leftovers that stay are no news, and may be what the server goes on with.
            return IsWatched() && !Exists(plan.readFile) ? 0 : RetryLater();
        }
        if (step == Step::FILES) {
            return TryFiles();
        }
        return step == Step::WRITE_END ? TryWriteEnd() : 0;
    });
}

bool Opening::IsWatched() const {
    return loop.Directory().IsWatching() && IsInFifoDirectory(plan.readFile) && IsInFifoDirectory(plan.writeFile);
}

bool Opening::LeftoversGone() {
    // The remote makes this file first and removes it last.
    return !Exists(plan.readFile) || Now() >= leftoverEnd;
}

int Opening::Announce() {
    const int fd = OpenEnd(plan.serverFile, O_WRONLY);
    if (fd < 0) {
        // Gone since it was looked for.
        return fd == -ENOENT ? -ENXIO : fd;
    }
    const UniqueFd server(fd);
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, plan.announced);
    const int ret = message.Init();
    if (ret != 0) {
        return ret;
    }
    const ssize_t written = write(server.Get(), message.GetData(), message.Size());
    if (written < 0) {
        return -errno;
    }
    return written == static_cast<ssize_t>(message.Size()) ? 0 : -EIO;
}

int Opening::MakeFiles() {
    // The remote waits for the second.
    int ret = CreateFifo(plan.writeFile, plan.gid, plan.targetPid, TARVO_DOMAIN_LOCAL, "");
    if (ret != 0) {
        return ret;
    }
    filesMade = true;
    ret = CreateFifo(plan.readFile, plan.gid, plan.targetPid, TARVO_DOMAIN_LOCAL, "");
    if (ret != 0) {
        return ret;
    }
    const int fd = OpenEnd(plan.readFile, O_RDONLY);
    if (fd < 0) {
        return fd;
    }
    readEnd = UniqueFd(fd);
    step = Step::WRITE_END;
    retryUs = FIRST_SERVER_RETRY_US;
    return TryWriteEnd();
}

int Opening::TryFiles() {
    if (!Exists(plan.writeFile) || !Exists(plan.readFile)) {
        return IsWatched() ? 0 : RetryLater();
    }
    const int fd = OpenEnd(plan.readFile, O_RDONLY);
    if (fd == -ENOENT) {
        return RetryLater();
    }
    if (fd < 0) {
        return fd;
    }
    readEnd = UniqueFd(fd);
    step = Step::WRITE_END;
    retryUs = FIRST_RETRY_US;
    return TryWriteEnd();
}

bool Opening::ReadEndIsPublished() const { return plan.makesFiles || StandsUnder(readEnd.Get(), plan.readFile); }

int Opening::TryWriteEnd() {
    const int fd = OpenEnd(plan.writeFile, O_WRONLY);
    if (fd == -ENXIO || fd == -ENOENT) {
        return AwaitReader();
    }
    if (fd < 0) {
        return fd;
    }
    UniqueFd writeEnd(fd);
    // Not closed again whatever comes: the remote would take that for the end of the link.
    const int ret = ReadEndIsPublished() ? 0 : ReopenReadEnd();
    if (ret != 0) {
        return ret;
    }
    Finish(std::move(writeEnd));
    return 0;
}

// What it holds is the file of an earlier remote, which this one has replaced before it made the other file.
int Opening::ReopenReadEnd() {
    const int fd = OpenEnd(plan.readFile, O_RDONLY);
    if (fd < 0) {
        return fd;
    }
    if (readEndWatched) {
        listener.UnwatchReadEnd();
        readEndWatched = false;
    }
    readEnd = UniqueFd(fd);
    return 0;
}

int Opening::AwaitReader() {
    if (!readEndWatched) {
        const int ret = listener.WatchReadEnd(readEnd.Get());
        if (ret != 0) {
            return ret;
        }
        readEndWatched = true;
    }
    return RetryLater();
}

int Opening::RetryLater() {
    const int64_t wait = retryUs;
    // The end of a file is not told of: it mostly comes at once.
    retryUs = std::min(retryUs * 2, step == Step::LEFTOVERS ? LONGEST_LEFTOVER_RETRY_US : LONGEST_RETRY_US);
    return loop.Clock().Arm(retry, Now() + wait) ? 0 : -ENOMEM;
}

int64_t Opening::NextLookUs() const {
    const int64_t end = deadline.Armed() ? deadline.Deadline() : INT64_MAX;
    return retry.Armed() ? std::min(end, retry.Deadline()) : end;
}

void Opening::LookIfDue() {
    loop.Clock().Ring(retry);
    loop.Clock().Ring(deadline);
}

void Opening::OnRetry() { Advance(); }

void Opening::OnDeadline() {
    if (step != Step::DONE) {
        Fail(-ETIMEDOUT);
    }
}

void Opening::OnFileChanged(std::string_view name) {
    const bool concerned = step == Step::LEFTOVERS || step == Step::FILES;
    if (concerned && (name.empty() || IsNameOf(name, plan.readFile) || IsNameOf(name, plan.writeFile))) {
        Advance();
    }
}

void Opening::OnReadEnd(bool hangUp) {
    if (step != Step::WRITE_END) {
        return;
    }
    Advance();
    if (step != Step::WRITE_END || !hangUp) {
        return;
    }
    int left = 0;
    if (ioctl(readEnd.Get(), FIONREAD, &left) == 0 && left > 0) {
        Finish(UniqueFd());
    } else {
        Fail(-EPIPE);
    }
}

void Opening::Finish(UniqueFd writeEnd) {
    StopWaiting();
    filesMade = false;
    readEndWatched = false;
    listener.OnEndsOpen(std::move(readEnd), std::move(writeEnd));
}

void Opening::Fail(int result) {
    TARVO_LOG_RESTRAINED(LOG_ERR, "Open %s failed, ret = %d.", plan.readFile.c_str(), result);
    Abandon();
    listener.OnOpenFailed(result);
}

void Opening::StopWaiting() {
    step = Step::DONE;
    loop.Directory().Remove(*this);
    loop.Clock().Disarm(deadline);
    loop.Clock().Disarm(retry);
}

void Opening::Abandon() {
    StopWaiting();
    if (readEndWatched) {
        listener.UnwatchReadEnd();
        readEndWatched = false;
    }
    if (filesMade) {
        RemoveOwnFile(readEnd.Get(), plan.readFile);
        unlink(plan.writeFile.c_str());
        filesMade = false;
    }
    readEnd.Reset();
}
