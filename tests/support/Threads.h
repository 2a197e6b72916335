// Threads that do one piece of work together.
#ifndef TARVO_SUPPORT_THREADS_H
#define TARVO_SUPPORT_THREADS_H

#include <thread>
#include <utility>
#include <vector>

namespace tarvo_test {

// Joined at the latest by the destructor.
class Threads {
public:
    Threads() = default;
    // `count` threads that each run `work` with its number, from 0 on.
    template <typename Work>
    Threads(int count, Work work) {
        for (int number = 0; number < count; ++number) {
            Start([work, number] { work(number); });
        }
    }
    ~Threads() { Join(); }
    Threads(const Threads &) = delete;
    Threads &operator=(const Threads &) = delete;

    template <typename Work>
    void Start(Work work) {
        threads.emplace_back(std::move(work));
    }

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
template <typename Work>
void OnThreads(int count, Work work) {
    Threads(count, std::move(work)).Join();
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_THREADS_H
