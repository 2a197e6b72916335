#ifndef TARVO_BRIDGE_LOCAL_RELAYLINK_H
#define TARVO_BRIDGE_LOCAL_RELAYLINK_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "core/LocalSide.h"
#include "loop/FrameBatch.h"
#include "loop/FrameReader.h"
#include "loop/Loop.h"
#include "loop/Opening.h"
#include "loop/Poller.h"
#include "loop/Work.h"

namespace tarvo_bridge {

class PipeFlusher;

// Which pipe, seen from this side.
struct RelayPlan {
    std::string self;
    std::string remote;
    bool announces; // to the server `remote`; otherwise it makes the files, for a client that waits for them
    uint32_t gid;   // of the files
    int32_t pid;    // whom they are labelled for
    int32_t timeoutMs;
};

// A pipe of a loop that passes frames on as they are, where TarvoLink has calls and requests of its own.
// Owns: its ends, its files where it has made them. Threads: that of the loop; another that ends its turn with
// PipeFlusher::FlushAfter(). Locks: the flusher's. Ends: Close(), or the loop.
class RelayLink final : public LocalPipe, public Member, public Work, public Watcher, public ::Opening::Listener {
public:
    RelayLink(TarvoLoop &owner, PipeFlusher &pipeFlusher, RelayPlan &&relayPlan, LocalPipe::Listener &pipeListener);
    ~RelayLink() override;

    // Null: no memory, or names that are too long for a file.
    static RelayLink *Open(TarvoLoop &loop, PipeFlusher &flusher, RelayPlan &&plan, LocalPipe::Listener &listener);

    bool Write(const FrameBytes &frame) override;
    bool Flush() override;
    void Pause() override;
    void Resume() override;
    void Close() override;

    bool Serve(int share, int &ran) override;
    void OnEvents(uint32_t what, uint32_t events) override;
    void OnLoopDestroyed() override;
    void OnEndsOpen(UniqueFd opened, UniqueFd writeEnd) override;
    void OnOpenFailed(int result) override;
    int WatchReadEnd(int fd) override;
    void UnwatchReadEnd() override;

private:
    friend class PipeFlusher;
    enum What : uint32_t { READ_END, WRITE_END };
    enum class State { OPENING, OPEN, ENDED };

    void Begin();
    bool FlushNow();
    bool WriteOrWait();
    bool WriteBatch();
    void OnRoom();
    void TellEnd();
    void FlushWritten();
    bool ServeFrame();
    void Read();
    void End();
    void Shut();

    TarvoLoop &loop;
    PipeFlusher &flusher;
    const RelayPlan plan;
    LocalPipe::Listener *listener; // null: closed
    const std::string readFile;
    const std::string writeFile;
    State state = State::OPENING;
    std::unique_ptr<::Opening> opening;

    // Marks that the next turn looks at.
    bool openEnded = false;
    int openResult = 0;
    bool writable = false;
    bool readable = false;
    bool gone = false;

    bool paused = false;
    bool muted = false;
    bool heard = false;
    bool blocked = false;
    bool broken = false;
    bool ownsFiles = false;
    bool flushQueued = false;

    UniqueFd readFd;
    UniqueFd writeFd;
    Watch readWatch;
    Watch writeWatch;
    FrameOrigin origin;
    FrameReader reader;
    FrameBatch batch;
};

// Gathers the pipes that something was written to, so that what comes for one of them together goes out together.
// Owns: nothing. Threads: whoever has the turn; see FlushAfter(). Locks: one around what is flushed after a turn. Ends:
// after the pipes.
class PipeFlusher {
public:
    void Add(RelayLink &link);
    void Remove(RelayLink &link);
    void FlushAll();
    // Ends the turn, and flushes all then: who reads from such a pipe may answer, and have others at work in the next
    // turn, before the write returns. False: one has no room; FlushAll() tries it again. By one thread at a time.
    bool FlushAfter(std::unique_lock<std::mutex> &turn);
    // In a turn, before the frames or the write end of a pipe are touched: returns when none is flushed after the last
    // turn any more.
    void AwaitLate();

private:
    std::vector<RelayLink *> links;
    // Flushed after a turn, and those that had no room then. Of whoever has the turn while `late` is false, otherwise
    // of whoever holds `writing`.
    std::vector<RelayLink *> lateLinks;
    std::atomic<bool> late{false}; // set in a turn, cleared at any time
    Mutex writing;                 // taken in a turn; after it nobody asks for a turn who has it
};

} // namespace tarvo_bridge

#endif // TARVO_BRIDGE_LOCAL_RELAYLINK_H
