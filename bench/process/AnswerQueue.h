#ifndef TARVO_BENCH_PROCESS_ANSWERQUEUE_H
#define TARVO_BENCH_PROCESS_ANSWERQUEUE_H

#include <condition_variable>
#include <mutex>
#include <vector>

#include "Contestant.h"
#include "Time.h"

namespace bench {

// The way from a contestant's own threads, which learn of answers, to the thread in Client::Await.
// Owns: the answers. Threads: any for `Put` and `Fail`, one for `Take`. Locks: its own. Ends: when nobody puts any
// more.
class AnswerQueue {
public:
    void Put(Answered answer) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            answered.push_back(answer);
        }
        wake.notify_one();
    }
    void Fail() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            failed = true;
        }
        wake.notify_one();
    }

    // As Client::Await.
    bool Take(std::vector<Answered> &answers, int64_t until) {
        std::unique_lock<std::mutex> lock(mutex);
        const auto any = [this] { return failed || !answered.empty(); };
        if (until == NO_LIMIT) {
            wake.wait(lock, any);
        } else {
            wake.wait_until(lock, std::chrono::steady_clock::time_point(std::chrono::nanoseconds(until)), any);
        }
        answers.insert(answers.end(), answered.begin(), answered.end());
        answered.clear();
        return !failed;
    }

private:
    std::mutex mutex;
    std::condition_variable wake;
    std::vector<Answered> answered;
    bool failed = false;
};

} // namespace bench

#endif // TARVO_BENCH_PROCESS_ANSWERQUEUE_H
