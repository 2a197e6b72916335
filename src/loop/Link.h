#ifndef TARVO_LOOP_LINK_H
#define TARVO_LOOP_LINK_H

#include <cstdint>
#include <memory>
#include <string>

#include "base/UniqueFd.h"
#include "loop/Calls.h"
#include "loop/FrameBatch.h"
#include "loop/FrameReader.h"
#include "loop/KeptFrames.h"
#include "loop/LinkStats.h"
#include "loop/Loop.h"
#include "loop/Opening.h"
#include "loop/Poller.h"
#include "loop/Requests.h"
#include "loop/Work.h"
#include "tarvo_loop.h"

// What a link is made of.
struct LinkSpec {
    std::string self;
    std::string target;
    bool makesFiles;
    bool announces;
    uint32_t gid;
    int32_t targetPid;
    int32_t timeoutMs;
    void *context;
    TarvoLinkCallbacks callbacks;
    TarvoService *service; // whose client's it is, or null
};

// A pipe of a loop: two ends, the calls and requests that go through them, and the callbacks that tell of both.
// Owns: its ends, its files where it has made them. Threads: that of the loop. Locks: none. Ends: Close(), or the loop.
struct TarvoLink final : public Member, public Work, public Watcher, public Opening::Listener, public Calls::Listener {
public:
    TarvoLink(TarvoLoop &owner, LinkSpec &&linkSpec, std::string &&pathRead, std::string &&pathWrite);
    ~TarvoLink() override;

    // Makes a link, which begins to open. 0, -EINVAL (the names are too long), -EEXIST, -ENOMEM.
    static int Open(TarvoLoop &loop, LinkSpec &&spec, TarvoLink **link);

    // Open() for a client that has announced itself; adds it to the links of its service that are not open yet. A
    // client that does so again while its link opens has it already; an open one is left to what still uses it.
    static int OpenForClient(TarvoLoop &loop, LinkSpec &&spec, TarvoLink *&firstOfService);

    TarvoLoop &Loop() const { return loop; }
    const char *Peer() const { return origin.remote.c_str(); }
    void SetContext(void *newContext) { spec.context = newContext; }
    // 0 or -ENODATA: nothing is counted.
    int CopyStats(TarvoStatsPipe &copy) const;

    int Send(TarvoBytes payload);
    int64_t Call(TarvoBytes payload, int timeoutMs, TarvoDone done, void *context);
    int Cancel(int64_t call);
    int Reply(uint32_t request, TarvoBytes payload);
    void Hold() { held = true; }
    int Flush();
    int CallSync(TarvoBytes payload, int timeoutMs, char *answer, uint32_t &size);
    // The handle is dead; the memory goes when the ends of its calls have been told.
    void Close();

    // Its service is gone.
    void LeaveService() { spec.service = nullptr; }
    bool IsOpening() const { return state == State::OPENING; }

    // Writes the batch. 0, -EAGAIN (it goes out when there is room), or another negated errno with the batch dropped.
    int FlushNow();

    // FlushLater() has had it called.
    void FlushAtRoundEnd() {
        flushQueued = false;
        FlushNow();
    }

    bool Serve(int share, int &ran) override;
    void OnEvents(uint32_t what, uint32_t events) override;
    void OnLoopDestroyed() override;
    void OnEndsOpen(UniqueFd opened, UniqueFd writeEnd) override;
    void OnOpenFailed(int result) override;
    int WatchReadEnd(int fd) override;
    void UnwatchReadEnd() override;
    void OnCallEnded() override { loop.Queue(*this); }

    TarvoLink *nextToFlush = nullptr;
    TarvoLink *nextOfService = nullptr;
    TarvoLink *previousOfService = nullptr;

private:
    enum What : uint32_t { READ_END, WRITE_END };
    // GONE: the remote has closed, and all that it had sent has been delivered.
    enum class State { OPENING, OPEN, FAILED, GONE, CLOSED };
    enum class Step { RAN, AGAIN, NOTHING };

    void Begin();
    void CountOpen(int result);
    int CheckSend(TarvoBytes payload) const;
    int MaySend(TarvoBytes payload) const;
    int Refuse(uint32_t id, int result) const;
    int64_t BeginCall(TarvoBytes payload, int timeoutMs, TarvoDone done, void *context);
    int64_t DeadlineOf(int timeoutMs, uint64_t &begun) const;
    int Enqueue(uint32_t id, uint32_t kind, int32_t timeoutMs, TarvoBytes payload);
    int WriteBatch();
    int FlushWith(uint32_t kind, uint32_t size);
    void DropBatch(int result);
    void OnRoom();

    Step ServeOne();
    Step ServeEnds();
    Step TellOpened();
    Step TellWritable();
    Step TellClosed();
    Step Deliver(const Frame &frame);
    bool NextFrame(Frame &frame) { return (!kept.Idle() && TakeKept(frame)) || ReadFrame(frame); }
    bool TakeKept(Frame &frame);
    bool ReadFrame(Frame &frame);
    Step EndCall(const Frame &frame);
    Step RunRequest(const Frame &frame, uint32_t number);
    Step RunCounted(const Frame &frame, uint32_t number);
    void DropRequest(const Frame &frame, uint32_t reason);
    void DropUnread(const Frame &frame, bool isKept);
    void DropRest();
    bool HasMore();
    void Read();
    void OnRemoteGone();
    void Shut();

    // CallSync.
    int64_t SendSync(TarvoBytes payload, int timeoutMs);
    void EndSync(int64_t call);
    int AwaitOpen(int64_t deadlineUs);
    int AwaitStep(int64_t deadlineUs);
    int AwaitAnswer(int64_t number, int64_t deadlineUs, char *answer, uint32_t &size);
    int AwaitBytes(int64_t deadlineUs);
    bool Keep(const Frame &frame);
    int KeepFrames(int64_t number, char *answer, uint32_t &size);

    TarvoLoop &loop;
    LinkSpec spec;
    const std::string readFile;
    const std::string writeFile;
    State state = State::OPENING;
    std::unique_ptr<Opening> opening;
    int openResult = 0;

    // Marks that the next turn looks at.
    bool openEnded = false; // `opened` is to be told
    bool readable = false;
    bool lost = false;     // nobody reads what this side writes, as far as that matters
    bool gone = false;     // read to the end
    bool writable = false; // `writable` is to be told
    bool mayRead = false;  // once in each turn

    bool muted = false;   // the read end is not listened to for now
    bool heard = false;   // something has been read
    bool blocked = false; // the batch waits for room
    bool full = false;    // and a frame was refused
    bool broken = false;  // a write has failed for good
    bool held = false;
    bool flushQueued = false;
    bool ownsFiles = false;
    bool announced = false; // `client` has been told

    UniqueFd readFd;
    UniqueFd writeFd;
    Watch readWatch;
    Watch writeWatch;
    LinkStats stats;
    FrameOrigin origin;
    FrameReader reader;
    KeptFrames kept;
    Requests requests;
    Calls calls;
    FrameBatch batch;
};

#endif // TARVO_LOOP_LINK_H
