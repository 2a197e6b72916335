// A loop's life, and what it keeps for its members.
#include "loop/Loop.h"

#include <sched.h>

#include <cerrno>

#include "api/EnvManager.h"
#include "base/ProcessOwner.h"
#include "loop/Link.h"

namespace {

constexpr char PATIENT_RUN_MODE[] = "1";

} // namespace

TarvoLoop::TarvoLoop() : thread(pthread_self()), posts(*this), directory(*this) {}

TarvoLoop::~TarvoLoop() {
    while (visitors.load() > 0) {
        sched_yield();
    }
    while (members != nullptr) {
        Member *const member = members;
        members = member->nextMember;
        if (members != nullptr) {
            members->previousMember = nullptr;
        }
        member->OnLoopDestroyed();
        delete member;
    }
    FreeBuried();
}

int TarvoLoop::Init() {
    ProcessOwner::Claim();
    if (ProcessOwner::IsInherited()) {
        return -ENOENT;
    }
    patient = EnvManager::GetRunMode() == PATIENT_RUN_MODE;
    // Not cleared: reads fill it.
    scratch.reset(new char[SCRATCH_SIZE]);
    int ret = poller.Init();
    if (ret == 0) {
        ret = timers.Init();
    }
    if (ret == 0) {
        ret = posts.Init();
    }
    if (ret == 0) {
        ret = poller.Add(posts.Fd(), EPOLLIN, *this, POSTS, postsWatch);
    }
    if (ret == 0) {
        ret = poller.Add(timers.Fd(), EPOLLIN, *this, TIMERS, timersWatch);
    }
    return ret;
}

bool TarvoLoop::IsInherited() { return ProcessOwner::IsInherited(); }

int TarvoLoop::Check() const {
    if (ProcessOwner::IsInherited()) {
        return -ENOENT;
    }
    return pthread_equal(thread, pthread_self()) != 0 ? 0 : -EDEADLK;
}

// Also where the thread is cancelled in the system call. Owns: a place among the visitors. Threads: its own. Locks:
// none. Ends: before the loop.
class TarvoLoop::Visit {
public:
    explicit Visit(TarvoLoop &visited) : loop(visited) { loop.visitors.fetch_add(1); }
    ~Visit() { loop.visitors.fetch_sub(1); }
    Visit(const Visit &) = delete;
    Visit &operator=(const Visit &) = delete;

private:
    TarvoLoop &loop;
};

void TarvoLoop::Stop() {
    const Visit visit(*this);
    stop.store(true);
    if (sleeping.load()) {
        posts.Wake();
    }
}

int TarvoLoop::Post(void (*function)(void *), void *context) {
    if (pthread_equal(thread, pthread_self()) != 0 && inRound) {
        // The end of the round sees to it that the descriptor is readable.
        const int ret = posts.Add(function, context);
        ready.Append(posts);
        return ret;
    }
    const Visit visit(*this);
    return posts.Post(function, context);
}

void TarvoLoop::Destroy() {
    if (inRound) {
        destroyed = true;
        return;
    }
    delete this;
}

void TarvoLoop::Queue(Work &work) {
    ready.Append(work);
    if (!inRound) {
        posts.Wake();
    }
}

void TarvoLoop::FlushLater(TarvoLink &link) {
    link.nextToFlush = firstToFlush;
    firstToFlush = &link;
}

void TarvoLoop::SettleTimers() {
    if (!inRound) {
        timers.Settle();
    }
}

void TarvoLoop::Adopt(Member &member) {
    member.nextMember = members;
    if (members != nullptr) {
        members->previousMember = &member;
    }
    members = &member;
}

void TarvoLoop::Unlist(Member &member) {
    (member.previousMember != nullptr ? member.previousMember->nextMember : members) = member.nextMember;
    if (member.nextMember != nullptr) {
        member.nextMember->previousMember = member.previousMember;
    }
    member.nextMember = nullptr;
    member.previousMember = nullptr;
}

void TarvoLoop::Bury(Member &member) {
    if (member.buried) {
        return;
    }
    Unlist(member);
    if (!inRound) {
        delete &member;
        return;
    }
    member.buried = true;
    member.nextMember = graveyard;
    graveyard = &member;
}

void TarvoLoop::FreeBuried() {
    while (graveyard != nullptr) {
        Member *const member = graveyard;
        graveyard = member->nextMember;
        delete member;
    }
}
