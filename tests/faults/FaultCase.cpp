#include "faults/FaultCase.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <optional>
#include <sstream>

#include "faults/ManualPages.h"
#include "support/AllocFaults.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/Watchdog.h"
#include "tarvo.h"

namespace tarvo_test {
namespace {

constexpr std::chrono::seconds CASE_LIMIT{40};

// Ends the sleeps of the library's threads early once the case is over: nobody needs them, and a worker may sleep half
// a second between two attempts.
class Impatience {
public:
    void Begin() { over = true; }

private:
    std::optional<Outcome> Sleep(const CallInfo &info) const {
        const auto *const length = static_cast<const timespec *>(info.data);
        long left = length->tv_sec * 1000 + length->tv_nsec / 1000000;
        for (; left > 0 && !over; --left) {
            ::poll(nullptr, 0, 1);
        }
        return Outcome{};
    }

    std::atomic<bool> over{false};
    ScopedHook hook{Call::Sleep, [this](const CallInfo &info) { return Sleep(info); }};
};

Where PlaceOf(const Fault &fault) {
    Where where;
    where.Nth(fault.nth);
    if (fault.call == Call::ClockGettime) {
        // The other clock is also read by the standard library, which relies on it.
        where.Number(CLOCK_REALTIME);
    }
    if (fault.whose == Whose::Callers) {
        return where.ThisThread();
    }
    const pid_t caller = gettid();
    return where.If([caller](const CallInfo &) { return gettid() != caller; });
}

// Arms the fault and tells whether it was met.
class Armed {
public:
    explicit Armed(const Fault &fault) {
        if (fault.allocation != 0) {
            allocation.emplace(fault.allocation);
        } else if (fault.call == Call::Close) {
            // The kernel gives the descriptor back whatever close reports.
            hook.emplace(
                Call::Close,
                [error = fault.error](const CallInfo &info) {
                    ::close(info.fd);
                    return std::optional<Outcome>(Outcome{-1, error});
                },
                PlaceOf(fault));
        } else if (fault.call != Call::Count) {
            plain.emplace(fault.call, fault.error, PlaceOf(fault));
        }
    }

    bool Hit() const {
        return (allocation && allocation->Hit()) || (hook && hook->Hits() > 0) || (plain && plain->Hits() > 0);
    }

private:
    std::optional<AllocFault> allocation;
    std::optional<ScopedHook> hook;
    std::optional<ScopedFault> plain;
};

std::string Describe(const Function &function, const Fault &fault) {
    std::ostringstream text;
    text << function.name << ": ";
    if (fault.allocation != 0) {
        text << "allocation " << fault.allocation;
    }
    for (const ManualPage &page : ManualPages()) {
        if (page.call == fault.call) {
            text << page.name << " number " << fault.nth << " fails with " << NameOfErrno(fault.error);
        }
    }
    return text.str();
}

// Only these leave a file behind: the one that was to be removed.
bool MayLeaveAFile(const Fault &fault) { return fault.call == Call::Unlink || fault.call == Call::Access; }

std::string RunHere(const Function &function, const Fault &fault, bool goOn) {
    const Watchdog watchdog(CASE_LIMIT);
    Outcomes seen;
    std::optional<ScopedLeakCheck> leaks(std::in_place);
    {
        Impatience sleeps;
        std::unique_ptr<Scene> scene = function.scene();
        {
            Armed armed(fault);
            seen.result = scene->Act();
            seen.hit = armed.Hit();
        }
        if (goOn) {
            scene->GoOn(seen.result);
        }
        sleeps.Begin();
        scene.reset();
        TarvoCfgFinishServer();
    }
    seen.fileStays = !OwnFifoFiles().empty();
    if (seen.fileStays && MayLeaveAFile(fault)) {
        RemoveOwnFifoFiles();
    }
    leaks.reset();
    std::ostringstream text;
    text << seen.hit << ' ' << seen.result << ' ' << seen.fileStays;
    return text.str();
}

std::string RunHereWithout(const Function &function, const Resource &resource) {
    const Watchdog watchdog(CASE_LIMIT);
    if (!resource.prepare()) {
        return "0 0 0";
    }
    Outcomes seen;
    const ScopedLeakCheck leaks;
    {
        Impatience sleeps;
        std::unique_ptr<Scene> scene = function.scene();
        resource.take();
        seen.result = scene->Act();
        resource.giveBack();
        scene->GoOn(seen.result);
        sleeps.Begin();
        scene.reset();
        TarvoCfgFinishServer();
    }
    return "1 " + std::to_string(seen.result) + " 0";
}

// Runs `body` in a process of its own; its text is that of an outcome.
Outcomes RunInChild(const std::string &what, const std::function<std::string()> &body) {
    ChildProcess child([&](Channel &parent) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, what);
        return parent.Send(body()) ? 0 : 1;
    });
    const std::optional<std::string> report = child.ToChild().Receive();
    const int code = child.Wait();
    RemoveOwnFifoFiles();
    Outcomes seen;
    if (report && code == 0) {
        std::istringstream(*report) >> seen.hit >> seen.result >> seen.fileStays;
    } else {
        seen.problem = what + ": exit code " + std::to_string(code);
    }
    return seen;
}

} // namespace

Outcomes RunCase(const Function &function, const Fault &fault, bool goOn) {
    return RunInChild(Describe(function, fault) + (goOn ? "" : " and the caller gives up"),
                      [&] { return RunHere(function, fault, goOn); });
}

Outcomes RunWithout(const Function &function, const Resource &resource) {
    return RunInChild(function.name, [&] { return RunHereWithout(function, resource); });
}

std::vector<Call> CallsOf(const Function &function, const std::vector<Call> &calls, Whose whose) {
    std::vector<Call> made;
    ChildProcess child([&](Channel &parent) {
        std::vector<std::unique_ptr<CallCounter>> counters;
        std::ostringstream text;
        {
            Impatience sleeps;
            std::unique_ptr<Scene> scene = function.scene();
            for (const Call call : calls) {
                Fault fault;
                fault.call = call;
                fault.whose = whose;
                counters.push_back(std::make_unique<CallCounter>(call, PlaceOf(fault)));
            }
            scene->Act();
            for (const auto &counter : counters) {
                text << counter->Count() << ' ';
            }
            sleeps.Begin();
            scene.reset();
            TarvoCfgFinishServer();
        }
        return parent.Send(text.str()) ? 0 : 1;
    });
    std::istringstream counts(child.ToChild().Receive().value_or(""));
    EXPECT_EQ(child.Wait(), 0) << function.name;
    RemoveOwnFifoFiles();
    for (const Call call : calls) {
        unsigned count = 0;
        counts >> count;
        if (count > 0) {
            made.push_back(call);
        }
    }
    return made;
}

} // namespace tarvo_test
