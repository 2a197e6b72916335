#ifndef TARVO_LOOP_LOOP_H
#define TARVO_LOOP_LOOP_H

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "loop/DirectoryWatch.h"
#include "loop/Poller.h"
#include "loop/Posts.h"
#include "loop/Timers.h"
#include "loop/Work.h"
#include "tarvo_loop.h"

class LinkStats;

// Something that a loop owns and that dies when nobody stands in it any more. Owns: nothing. Threads: that of the loop.
// Locks: none. Ends: through Loop::Bury(), or with the loop.
class Member {
public:
    Member() = default;
    virtual ~Member() = default;
    Member(const Member &) = delete;
    Member &operator=(const Member &) = delete;

    // The loop goes down: gives back what others could miss. Calls nobody.
    virtual void OnLoopDestroyed() = 0;

private:
    friend struct TarvoLoop;
    Member *nextMember = nullptr;
    Member *previousMember = nullptr;
    bool buried = false;
};

// A loop: what its members wait for, and the rounds in which their callbacks run.
// Owns: its epoll set, its members. Threads: the one that has created it; any for Post and Stop. Locks: that of Posts.
// Ends: in no round; its members with it.
struct TarvoLoop final : public Watcher {
public:
    static constexpr std::size_t SCRATCH_SIZE = 65536;
    static constexpr int PATIENT_TIMEOUT_MS = 18000000;

    TarvoLoop();
    ~TarvoLoop() override;

    // Once, before anything else. 0 or a negated errno.
    int Init();

    // 0; -EDEADLK on another thread than the loop's, -ENOENT in a child of its process.
    int Check() const;
    // Whether this is a child of the process that has made the first loop.
    static bool IsInherited();
    // Check(), and -EDEADLK inside a callback. Other threads must not even look at what the loop's changes.
    int CheckOutside() const {
        const int ret = Check();
        return ret == 0 && inRound ? -EDEADLK : ret;
    }

    int Fd() const { return poller.Fd(); }
    int Dispatch(int max);
    // Dispatch() in two steps: the first waits, and leaves the loop to another thread meanwhile.
    void Wait(Poller::Ready &told) const { poller.Wait(told, -1); }
    int Dispatch(const Poller::Ready &told, int max);
    int Run(int timeoutMs);
    void Stop();
    int Post(void (*function)(void *), void *context);
    // Frees the loop, or has the round free it that is under way.
    void Destroy();

    // For its members.
    Poller &Events() { return poller; }
    Timers &Clock() { return timers; }
    DirectoryWatch &Directory() { return directory; }
    bool InRound() const { return inRound; }
    uint64_t Round() const { return round; }
    // Whether no callback may run any more.
    bool IsDestroyed() const { return destroyed; }
    // Whether no further callback may run in this round.
    bool Interrupted() const { return destroyed || (running && stop.load(std::memory_order_relaxed)); }
    // Has `work` served in a round after the marks of this one, and the descriptor readable until then.
    void Queue(Work &work);
    // Has a link's batch written at the end of this round.
    void FlushLater(TarvoLink &link);
    // After a timer was armed.
    void SettleTimers();
    // A limit as it holds in this process: five hours where its remotes may be stopped in a debugger. None stays none.
    int Patient(int timeoutMs) const { return patient && timeoutMs >= 0 ? PATIENT_TIMEOUT_MS : timeoutMs; }
    // The clock, in ns, for links that are counted; and the end of the callback that one of them has left to this look.
    uint64_t Look();
    void LookLater(LinkStats &ended) { unended = &ended; }
    char *Scratch() { return scratch.get(); }

    void Adopt(Member &member);
    // Frees a member of the loop when no callback of it can be running.
    void Bury(Member &member);

    // The links by the file that they read from.
    std::unordered_map<std::string, TarvoLink *> links;

    void OnEvents(uint32_t what, uint32_t events) override;

private:
    enum What : uint32_t { POSTS, TIMERS };

    class Visit;

    // Owns: that the loop is in a round. Threads, Locks, Ends: as TarvoLoop.
    class RoundScope;

    int RunRound(const Poller::Ready &told, int max, int &ran);
    void Sleep(Poller::Ready &told, int waitMs);
    bool TakeStop();
    void ServeAll(int max, int &ran);
    void ServeQueue(int max, int &ran);
    void FlushAll();
    void EndRound();
    void FreeBuried();
    void Unlist(Member &member);
    int Finish(int result);

    const pthread_t thread;
    bool inRound = false;
    bool running = false;
    bool destroyed = false;
    bool patient = false;
    std::atomic<bool> stop{false};
    std::atomic<bool> sleeping{false}; // a run, or it is about to
    // Threads inside Post and Stop: what they do may end the loop's thread before they have left.
    std::atomic<int> visitors{0};
    uint64_t round = 1;

    Poller poller;
    Timers timers;
    Posts posts;
    DirectoryWatch directory;
    Watch postsWatch;
    Watch timersWatch;

    WorkQueue ready;   // for the next round
    WorkQueue current; // of this round
    WorkQueue later;   // what has come up in it, while timers are looked at
    TarvoLink *firstToFlush = nullptr;
    LinkStats *unended = nullptr;
    Member *members = nullptr;
    Member *graveyard = nullptr;
    std::unique_ptr<char[]> scratch;
};

#endif // TARVO_LOOP_LOOP_H
