// Calls that are due at a fixed rate. A call that is made late, because earlier ones took long, has waited since it was
// due, and that counts: otherwise a contestant that stalls would be asked less often just then.
#include <sched.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "Task.h"
#include "Time.h"

namespace bench {

namespace {

constexpr int64_t LEAD = SECOND / 100; // before the first call is due
constexpr std::size_t MOST_OUTSTANDING = 1024;

void Require(bool succeeded) {
    if (!succeeded) {
        throw std::runtime_error("a call failed");
    }
}

// The thread's sleeps end when they should, and it has its real-time priority if it is to have one.
void PrepareThread(int realtime) {
    prctl(PR_SET_TIMERSLACK, 1);
    sched_param parameters{};
    parameters.sched_priority = realtime;
    if (realtime > 0 && sched_setscheduler(0, SCHED_FIFO, &parameters) != 0) {
        throw std::runtime_error("no right to real-time scheduling");
    }
}

// When each call is due.
struct Schedule {
    int64_t first;
    double interval;
    int64_t Due(std::size_t number) const {
        return first + static_cast<int64_t>(interval * static_cast<double>(number));
    }
};

} // namespace

void Session::Open(Outcome &outcome) {
    const auto inTime = static_cast<std::size_t>(task.rate * task.seconds);
    const auto most = static_cast<std::size_t>(task.rate * task.limit);
    const std::size_t total = task.count > 0 ? task.count : std::min(std::max(inTime, task.samples), most);
    outcome.latencies.resize(total);
    outcome.services.resize(total);
    const bool oneThread = (contestant.abilities & LANES) == 0 && (contestant.abilities & WINDOW) != 0;
    oneThread ? OpenFromOneThread(outcome, total) : OpenFromLanes(outcome, total);
    outcome.operations = total;
}

// Each thread takes the next call, waits until it is due, and makes it.
void Session::OpenFromLanes(Outcome &outcome, std::size_t total) {
    std::atomic<std::size_t> next{0};
    Begin(outcome);
    const Schedule schedule{Now() + LEAD, 1e9 / task.rate};
    const auto work = [&](std::size_t lane) {
        PrepareThread(task.realtime);
        CallOnce(*clients.back(), lane);
        for (std::size_t number = next++; number < total; number = next++) {
            const int64_t due = schedule.Due(number);
            if (Now() < due) {
                SleepUntil(due);
            }
            const int64_t start = Now();
            CallOnce(*clients.back(), lane);
            const int64_t now = Now();
            outcome.latencies[number] = now - due;
            outcome.services[number] = now - start;
        }
    };
    std::vector<std::thread> threads;
    for (std::size_t lane = 0; lane < place.lanes; ++lane) {
        threads.emplace_back(work, lane);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    End(outcome);
    outcome.begin = schedule.first;
}

void Session::OpenFromOneThread(Outcome &outcome, std::size_t total) {
    PrepareThread(task.realtime);
    Client &client = *clients.back();
    std::vector<int64_t> started(total);
    std::vector<Answered> answers;
    std::size_t made = 0;
    std::size_t answered = 0;
    Begin(outcome);
    const Schedule schedule{Now() + LEAD, 1e9 / task.rate};
    while (answered < total) {
        int64_t now = Now();
        while (made < total && schedule.Due(made) <= now && made - answered < MOST_OUTSTANDING) {
            started[made] = now;
            Require(client.Start(made++, payload.data(), task.size));
            now = Now();
        }
        const bool full = made == total || made - answered == MOST_OUTSTANDING;
        Require(client.Await(answers, full ? NO_LIMIT : schedule.Due(made)));
        now = Now();
        for (const Answered &answer : answers) {
            outcome.latencies[answer.token] = now - schedule.Due(answer.token);
            outcome.services[answer.token] = now - started[answer.token];
        }
        answered += answers.size();
        answers.clear();
    }
    End(outcome);
    outcome.begin = schedule.first;
}

} // namespace bench
