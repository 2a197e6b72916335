// Threads that do one piece of work together.
#ifndef TARVO_SUPPORT_THREADS_H
#define TARVO_SUPPORT_THREADS_H

#include <functional>
#include <future>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace tarvo_test {

// Joined at the latest by the destructor.
class Threads {
public:
    Threads() = default;
    // `count` threads that each run `work` with its number, from 0 on.
    Threads(int count, const std::function<void(int)> &work) {
        for (int number = 0; number < count; ++number) {
            Start([work, number] { work(number); });
        }
    }
    ~Threads() { Join(); }
    Threads(const Threads &) = delete;
    Threads &operator=(const Threads &) = delete;

    void Start(std::function<void()> work) { threads.emplace_back(std::move(work)); }

    void Join() {
        for (std::thread &thread : threads) {
            thread.join();
        }
        threads.clear();
    }

private:
    std::vector<std::thread> threads;
};

// Runs `work` on `count` threads and returns when the last one has ended.
inline void OnThreads(int count, const std::function<void(int)> &work) { Threads(count, work).Join(); }

// std::async() on a thread of its own, instantiated for each type of result and not for each piece of work, which would
// take compilers an eighth of a second each.
template <typename Work>
auto InBackground(Work work) {
    std::function<std::invoke_result_t<Work>()> erased(std::move(work));
    return std::async(std::launch::async, std::move(erased));
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_THREADS_H
