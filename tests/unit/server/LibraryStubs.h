// Functions of the library that this test program defines in front of it.
#ifndef TARVO_UNIT_SERVER_LIBRARYSTUBS_H
#define TARVO_UNIT_SERVER_LIBRARYSTUBS_H

#include <sys/types.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tarvo.h"

namespace tarvo_test {

// One call of TarvoPipeTypeOpen, with copies of what the attribute points to.
struct OpenedPipe {
    std::string targetName;
    std::string selfName; // "(null)" when it was null
    TarvoAttr attr;       // its pointers are those of the call
    TarvoPipeType type;
    pid_t thread;
};

// Takes the place of TarvoPipeTypeOpen while it lives: no pipe is opened. Hands out the handles 101, 102, .. .
class PipeOpens {
public:
    PipeOpens();
    ~PipeOpens();
    PipeOpens(const PipeOpens &) = delete;
    PipeOpens &operator=(const PipeOpens &) = delete;

    // Called within each open, on its thread, without a lock; its result replaces the handle unless it is 0.
    void SetAction(std::function<int(const OpenedPipe &)> then);

    // Waits for at least that many opens and returns all; fails the test after 30 s.
    std::vector<OpenedPipe> WaitFor(std::size_t count);
    std::vector<std::string> TargetNames(std::size_t count);
    // Waits for the open of a pipe to that name.
    OpenedPipe WaitForTarget(const std::string &targetName);
    std::size_t Count() const;
    void Forget();

    int Record(const TarvoAttr &attr, TarvoPipeType type);

private:
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<OpenedPipe> opened;
    std::function<int(const OpenedPipe &)> action;
};

// What GetCurrDomain says while it lives.
class DomainStub {
public:
    explicit DomainStub(TarvoDomain domain);
    ~DomainStub();
    DomainStub(const DomainStub &) = delete;
    DomainStub &operator=(const DomainStub &) = delete;
};

// What EnvManager::FifoPrefix says while it lives.
class PrefixStub {
public:
    explicit PrefixStub(const std::string &prefix);
    ~PrefixStub();
    PrefixStub(const PrefixStub &) = delete;
    PrefixStub &operator=(const PrefixStub &) = delete;
};

} // namespace tarvo_test

#endif // TARVO_UNIT_SERVER_LIBRARYSTUBS_H
