#ifndef TARVO_LOOP_OPENING_H
#define TARVO_LOOP_OPENING_H

#include <cstdint>
#include <string>
#include <string_view>

#include "base/UniqueFd.h"
#include "loop/DirectoryWatch.h"
#include "loop/Timers.h"

struct TarvoLoop;

// How a link comes to its two ends.
struct OpeningPlan {
    std::string readFile;
    std::string writeFile;
    std::string serverFile; // of the server that is told; empty: none is
    std::string announced;  // the name that it is told
    bool makesFiles;
    uint32_t gid;      // of files that it makes
    int32_t targetPid; // whom they are labelled for
    int32_t timeoutMs; // negative: no limit
};

// The steps to an open link, none of which blocks: leftovers of an earlier link gone, the server told, the files there
// or made, the read end, the write end. What has been done is undone when a step fails or the time is up.
// Owns: both ends until they are handed over, and the files that it has made until then. Threads: that of the loop.
// Locks: none. Ends: any time but inside its own steps.
class Opening final : public FileWaiter {
public:
    // What is told, once. It must not free the opening before that has returned.
    class Listener {
    public:
        // Both ends are open. `writeEnd` may be none: the remote has sent something and is gone already.
        virtual void OnEndsOpen(UniqueFd readEnd, UniqueFd writeEnd) = 0;
        virtual void OnOpenFailed(int result) = 0;
        // The read end may be watched from now on, for OnReadEnd(). 0 or a negated errno.
        virtual int WatchReadEnd(int fd) = 0;
        virtual void UnwatchReadEnd() = 0;

    protected:
        ~Listener() = default;
    };

    Opening(TarvoLoop &owner, OpeningPlan &&openingPlan, Listener &openingListener);
    ~Opening() override;

    // The first steps. Whatever comes of them, the listener is told.
    void Begin();
    // Ends it without telling the listener. May be called again.
    void Abandon();

    // There is something to read, or the remote has hung up.
    void OnReadEnd(bool hangUp);

    void OnFileChanged(std::string_view name) override;

    // For who waits for this opening alone: when it goes on by itself (monotonic microseconds, at most `latestUs`), and
    // what it does then.
    int64_t NextMoment(int64_t latestUs) const;
    void OnMoment();

    const OpeningPlan &Plan() const { return plan; }

private:
    enum class Step { LEFTOVERS, ANNOUNCE, FILES, WRITE_END, DONE };

    // Owns: nothing. Threads, Locks, Ends: as Timer.
    struct Alarm final : Timer {
        Alarm(Opening &owner, void (Opening::*function)()) : opening(owner), ring(function) {}
        void OnTimer() override { (opening.*ring)(); }
        Opening &opening;
        void (Opening::*ring)();
    };

    template <typename Body>
    void Guarded(Body body);
    void Advance();
    void OnDeadline();
    void OnRetry();
    int Start();
    int StartWaiting();
    bool LeftoversGone();
    int Announce();
    int MakeFiles();
    int TryFiles();
    int TryWriteEnd();
    int ReopenReadEnd();
    int AwaitReader();
    bool ReadEndIsPublished() const;
    int RetryLater();
    void Fail(int result);
    void Finish(UniqueFd writeEnd);
    void StopWaiting();

    TarvoLoop &loop;
    OpeningPlan plan;
    Listener &listener;
    Step step = Step::LEFTOVERS;
    bool watched = false; // a directory watch tells of the files
    bool filesMade = false;
    bool readEndWatched = false;
    int64_t retryUs;         // the next wait
    int64_t leftoverEnd = 0; // when leftovers are ignored
    Alarm deadline;
    Alarm retry;
    UniqueFd readEnd;
};

#endif // TARVO_LOOP_OPENING_H
