// Planned failures of, hooks into and counts of the C library's functions, for tests.
#ifndef TARVO_SUPPORT_FAULTS_H
#define TARVO_SUPPORT_FAULTS_H

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/Interpose.h"

namespace tarvo_test {

// Which calls a rule is about. Everything that is not restricted matches; a rule never matches in a forked child.
class Where {
public:
    Where &Nth(unsigned first) { return nth = first, *this; }     // the first matching call that is acted on: 1, 2, ..
    Where &Times(unsigned count) { return times = count, *this; } // how many calls from there on
    Where &Always() { return times = 0, *this; }                  // all of them from there on
    Where &Path(std::string prefix) { return pathPrefix = std::move(prefix), *this; } // `path` starts with it
    Where &PathHas(std::string part) { return pathPart = std::move(part), *this; }    // `path` or `path2` contains it
    Where &Fd(int descriptor) { return fd = descriptor, *this; }
    Where &Number(int value) { return number = value, *this; }
    Where &Thread(pid_t id) { return tid = id, *this; } // kernel thread id, as gettid(2)
    Where &ThisThread();
    // Runs under a lock and must neither block nor use this header.
    Where &If(std::function<bool(const CallInfo &)> predicate) { return condition = std::move(predicate), *this; }

private:
    friend class Rule;

    bool Matches(const CallInfo &info) const;

    unsigned nth = 1;
    unsigned times = 1;
    std::string pathPrefix;
    std::string pathPart;
    std::optional<int> fd;
    std::optional<int> number;
    pid_t tid = 0;
    std::function<bool(const CallInfo &)> condition;
};

class Rule;

// Fails the matching calls with `errnoValue` in the way of the function: -1 and errno, null, 0 (strftime), or the
// error number as the result (pthread functions).
class ScopedFault {
public:
    ScopedFault(Call call, int errnoValue, Where where = Where());
    ~ScopedFault();
    ScopedFault(const ScopedFault &) = delete;
    ScopedFault &operator=(const ScopedFault &) = delete;

    // How many calls were failed so far.
    unsigned Hits() const;

private:
    std::shared_ptr<Rule> rule;
};

// Runs `action` before the matching calls, on the calling thread; it may block. Calls that it makes itself meet no
// rules. It takes the CallInfo and returns nothing, or a std::optional<Outcome> whose value keeps the real call from
// being made. By default every matching call is hooked. The destructor waits until no action runs any more.
class ScopedHook {
public:
    using Action = std::function<std::optional<Outcome>(const CallInfo &)>;

    template <typename Function>
    ScopedHook(Call call, Function action, Where where = Where().Always())
        : ScopedHook(call, std::move(where), ToAction(std::move(action))) {}
    ~ScopedHook();
    ScopedHook(const ScopedHook &) = delete;
    ScopedHook &operator=(const ScopedHook &) = delete;

    unsigned Hits() const;

private:
    ScopedHook(Call call, Where where, Action action);

    template <typename Function>
    static Action ToAction(Function function) {
        if constexpr (std::is_void_v<std::invoke_result_t<Function &, const CallInfo &>>) {
            return [function](const CallInfo &info) mutable {
                function(info);
                return std::optional<Outcome>();
            };
        } else {
            return function;
        }
    }

    std::shared_ptr<Rule> rule;
};

// Counts the matching calls (Nth and Times have no meaning here).
class CallCounter {
public:
    explicit CallCounter(Call call, Where where = Where());
    ~CallCounter();
    CallCounter(const CallCounter &) = delete;
    CallCounter &operator=(const CallCounter &) = delete;

    unsigned Count() const;
    // Waits until that many calls were begun; false after 30 s.
    bool WaitFor(unsigned calls) const;

private:
    std::shared_ptr<Rule> rule;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_FAULTS_H
