#include "storm/Points.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>

namespace storm {

namespace {

using tarvo_test::Call;
using tarvo_test::CallInfo;
using tarvo_test::ScopedHook;
using tarvo_test::Where;

constexpr char SEPARATOR[] = "__to__";

// Counts down to the moment in the roles' own code at which the process dies.
std::atomic<Moment> ownMoment{Moment::Never};
std::atomic<int> remaining{0};

bool Has(const char *path, const std::string &part) {
    return path != nullptr && std::strstr(path, part.c_str()) != nullptr;
}

bool IsPipe(const CallInfo &info) { return Has(info.path, SEPARATOR); }

// What of a system call makes it the one that a moment is about.
struct Site {
    Moment moment;
    Call call;
    bool (*matches)(const CallInfo &info, const std::string &server);
};

constexpr Site SITES[] = {
    {Moment::MonitorFifoMade, Call::Link,
     [](const CallInfo &info, const std::string &server) { return Has(info.path, server) && !IsPipe(info); }},
    {Moment::MonitorFifoPublished, Call::Unlink,
     [](const CallInfo &info, const std::string &server) {
         // The temporary name is the longer one.
         return Has(info.path, server) && !IsPipe(info) &&
                std::strlen(std::strstr(info.path, server.c_str())) > server.size();
     }},
    {Moment::MonitorFifoNotOpen, Call::Open,
     [](const CallInfo &info, const std::string &server) { return Has(info.path, server) && !IsPipe(info); }},
    {Moment::PacketRead, Call::Mkfifo,
     [](const CallInfo &info, const std::string &server) { return Has(info.path, server + SEPARATOR); }},
    {Moment::OneFifoMade, Call::Link, [](const CallInfo &info, const std::string &) { return IsPipe(info); }},
    {Moment::OneFifoPublished, Call::Mkfifo,
     [](const CallInfo &info, const std::string &server) { return Has(info.path, SEPARATOR + server); }},
    {Moment::RemovingFile, Call::Unlink, [](const CallInfo &info, const std::string &) { return IsPipe(info); }},
    {Moment::NotWatched, Call::EpollCtl,
     [](const CallInfo &info, const std::string &) { return info.number == EPOLL_CTL_ADD; }},
    {Moment::Writing, Call::Write, [](const CallInfo &info, const std::string &) { return info.size > 0; }},
    {Moment::PacketWritten, Call::Access, [](const CallInfo &info, const std::string &) { return IsPipe(info); }},
    {Moment::HalfOpen, Call::Open,
     [](const CallInfo &info, const std::string &server) { return Has(info.path, server + SEPARATOR); }},
    {Moment::Closing, Call::Close, [](const CallInfo &, const std::string &) { return true; }},
};

} // namespace

const char *NameOf(Moment moment) {
    static const char *const names[static_cast<std::size_t>(Moment::Count)] = {
        "at a random moment",
        "own FIFO made, not published",
        "own FIFO published, temporary name there",
        "own FIFO published, not open",
        "connect packet read, no file made",
        "a pipe's FIFO made, not published",
        "one of two FIFOs published",
        "about to remove a pipe's file",
        "descriptor not yet watched",
        "about to write",
        "connect packet written, nothing open",
        "write end open, read end not",
        "closing",
        "a caller waits for its answer",
        "in the request callback",
        "in the open callback",
        "in the callback of a remote close",
    };
    return names[static_cast<std::size_t>(moment)];
}

const std::vector<Moment> &MomentsOf(Role role) {
    static const auto *const server = new std::vector<Moment>{
        Moment::MonitorFifoMade, Moment::MonitorFifoPublished, Moment::MonitorFifoNotOpen, Moment::PacketRead,
        Moment::OneFifoMade,     Moment::OneFifoPublished,     Moment::RemovingFile,       Moment::NotWatched,
        Moment::Writing,         Moment::InCallback,           Moment::InOpenCallback,     Moment::InCloseCallback};
    static const auto *const client =
        new std::vector<Moment>{Moment::PacketWritten, Moment::HalfOpen, Moment::NotWatched, Moment::Writing,
                                Moment::Closing,       Moment::Waiting,  Moment::InCallback, Moment::InCloseCallback};
    return role == Role::Server ? *server : *client;
}

Trap::Trap(Moment moment, unsigned nth, const std::string &server) {
    for (const Site &site : SITES) {
        if (site.moment == moment) {
            const auto matches = site.matches;
            hook = std::make_unique<ScopedHook>(
                site.call, [](const CallInfo &) { Die(); },
                Where().Nth(nth).Always().If(
                    [matches, server](const CallInfo &info) { return matches(info, server); }));
            return;
        }
    }
    remaining = static_cast<int>(nth);
    ownMoment = moment;
}

void Die() {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

void Meet(Moment moment) {
    if (ownMoment == moment && --remaining == 0) {
        Die();
    }
}

bool WantsToDieWaiting() { return ownMoment == Moment::Waiting && --remaining == 0; }

} // namespace storm
