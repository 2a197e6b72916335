#include "support/Faults.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

namespace tarvo_test {

// One armed rule. Everything but the constants is guarded by the registry's mutex.
class Rule {
public:
    Rule(Call which, Where restriction, ScopedHook::Action what)
        : call(which), where(std::move(restriction)), action(std::move(what)), owner(getpid()) {}

    // Counts the call; true when the action is to run.
    bool Meets(const CallInfo &info) {
        if (owner != getpid() || !where.Matches(info)) {
            return false;
        }
        ++seen;
        const bool reached = seen >= where.nth && (where.times == 0 || seen - where.nth < where.times);
        if (!action || !reached) {
            return false;
        }
        ++hits;
        ++running;
        return true;
    }

    const Call call;
    const Where where;
    const ScopedHook::Action action; // empty: only counts
    const pid_t owner;
    unsigned seen = 0;
    unsigned hits = 0;
    unsigned running = 0;
};

namespace {

struct Registry {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::shared_ptr<Rule>> rules[static_cast<std::size_t>(Call::Count)];
};

// Never destroyed: library threads call in while statics die.
Registry &Rules() {
    static auto *const registry = new Registry;
    return *registry;
}

thread_local bool insideRules = false;

// Marks the thread as running rules, whose own calls are forwarded, and keeps errno.
class InsideRules {
public:
    InsideRules() { insideRules = true; }
    ~InsideRules() {
        insideRules = false;
        errno = savedErrno;
    }
    InsideRules(const InsideRules &) = delete;
    InsideRules &operator=(const InsideRules &) = delete;

private:
    const int savedErrno = errno;
};

std::shared_ptr<Rule> Arm(Call call, Where where, ScopedHook::Action action) {
    auto rule = std::make_shared<Rule>(call, std::move(where), std::move(action));
    const auto index = static_cast<std::size_t>(call);
    Registry &registry = Rules();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.rules[index].push_back(rule);
    detail::armed[index].fetch_add(1, std::memory_order_release);
    return rule;
}

void Disarm(const std::shared_ptr<Rule> &rule) {
    const auto index = static_cast<std::size_t>(rule->call);
    Registry &registry = Rules();
    std::unique_lock<std::mutex> lock(registry.mutex);
    auto &rules = registry.rules[index];
    rules.erase(std::remove(rules.begin(), rules.end(), rule), rules.end());
    detail::armed[index].fetch_sub(1, std::memory_order_release);
    registry.changed.wait(lock, [&] { return rule->running == 0; });
}

Outcome FailureOf(Call call, int errnoValue) {
    switch (call) {
    case Call::PthreadCreate:
    case Call::PthreadJoin:
    case Call::PthreadSetschedparam:
    case Call::PthreadSetcancelstate:
    case Call::CondSignal:
    case Call::CondTimedwait:
        return {errnoValue, 0};
    case Call::Realpath:
    case Call::Strftime:
        return {0, errnoValue};
    default:
        return {-1, errnoValue};
    }
}

bool Contains(const char *text, const std::string &part) {
    return text != nullptr && std::strstr(text, part.c_str()) != nullptr;
}

} // namespace

Where &Where::ThisThread() { return Thread(gettid()); }

bool Where::Matches(const CallInfo &info) const {
    if (!pathPrefix.empty() &&
        (info.path == nullptr || std::strncmp(info.path, pathPrefix.c_str(), pathPrefix.size()) != 0)) {
        return false;
    }
    if (!pathPart.empty() && !Contains(info.path, pathPart) && !Contains(info.path2, pathPart)) {
        return false;
    }
    if ((fd && *fd != info.fd) || (number && *number != info.number) || (tid != 0 && tid != gettid())) {
        return false;
    }
    return !condition || condition(info);
}

std::optional<Outcome> detail::ApplyRules(const CallInfo &info) {
    if (insideRules) {
        return std::nullopt;
    }
    const InsideRules inside;
    Registry &registry = Rules();
    std::vector<std::shared_ptr<Rule>> matching;
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        for (const auto &rule : registry.rules[static_cast<std::size_t>(info.call)]) {
            if (rule->Meets(info)) {
                const OwnMemory own; // what is counted as running must run
                matching.push_back(rule);
            }
        }
        registry.changed.notify_all();
    }
    std::optional<Outcome> outcome;
    for (const auto &rule : matching) {
        const std::optional<Outcome> decided = rule->action(info);
        outcome = outcome ? outcome : decided;
        std::lock_guard<std::mutex> lock(registry.mutex);
        --rule->running;
        registry.changed.notify_all();
    }
    return outcome;
}

ScopedFault::ScopedFault(Call call, int errnoValue, Where where)
    : rule(Arm(call, std::move(where), [call, errnoValue](const CallInfo &) { return FailureOf(call, errnoValue); })) {}

ScopedFault::~ScopedFault() { Disarm(rule); }

unsigned ScopedFault::Hits() const {
    std::lock_guard<std::mutex> lock(Rules().mutex);
    return rule->hits;
}

ScopedHook::ScopedHook(Call call, Where where, Action action) : rule(Arm(call, std::move(where), std::move(action))) {}

ScopedHook::~ScopedHook() { Disarm(rule); }

unsigned ScopedHook::Hits() const {
    std::lock_guard<std::mutex> lock(Rules().mutex);
    return rule->hits;
}

CallCounter::CallCounter(Call call, Where where) : rule(Arm(call, std::move(where), nullptr)) {}

CallCounter::~CallCounter() { Disarm(rule); }

unsigned CallCounter::Count() const {
    std::lock_guard<std::mutex> lock(Rules().mutex);
    return rule->seen;
}

bool CallCounter::WaitFor(unsigned calls) const {
    const RealTime real;
    const InsideRules inside; // its own wait may be of the kind that is counted
    std::unique_lock<std::mutex> lock(Rules().mutex);
    return Rules().changed.wait_for(lock, std::chrono::seconds(30), [&] { return rule->seen >= calls; });
}

} // namespace tarvo_test
