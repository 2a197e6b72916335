// Several submitters at once, held against a model: per name the callbacks run in order, none at the same time as
// another, none twice, and what does not run is dropped.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "WorkerTestKit.h"
#include "support/LeakCheck.h"
#include "support/Process.h"
#include "worker/CallbackPool.h"

using namespace tarvo_test;
using namespace worker_test;

namespace {

constexpr unsigned SUBMITTERS = 4;
constexpr unsigned NORMAL_WORKERS = 6; // every submitter holds at most one, so that two are left to the others
constexpr unsigned URGENT_WORKERS = 2;
constexpr int STEPS = 400;
constexpr std::chrono::seconds ROUND_LIMIT{2};

// What happened to the callbacks of one round.
struct Ledger {
    std::atomic<int> made{0};
    std::atomic<int> gone{0};
    std::atomic<int> acceptedSerial{0};
    std::atomic<int> ranSerial{0};
    std::atomic<int> acceptedConcurrent{0};
    Tally ranConcurrent;
    std::atomic<int> outOfOrder{0};
    std::atomic<int> overlapping{0};
    std::atomic<int> refused{0};
    std::atomic<int> unexpected{0};
};

// One allocation of a name, from its first callback to FreeWorker.
struct Generation {
    std::string name;
    int accepted = 0; // only its submitter's
    std::atomic<int> ran{0};
    std::atomic<int> inside{0};
    Tally finished;
    Gate freed;
};

class Submitter {
public:
    Submitter(CallbackPool &callbackPool, Ledger &books, unsigned number, unsigned seed)
        : pool(callbackPool), ledger(books), id(number), random(seed) {}

    // Leaves its name allocated and callbacks queued when `orderly` is false.
    void Run(bool orderly) {
        for (Rounds steps(STEPS, ROUND_LIMIT); steps.Next();) {
            const unsigned choice = Pick(100);
            if (choice < 55) {
                SubmitSerial();
            } else if (choice < 85) {
                SubmitConcurrent();
            } else if (choice < 93) {
                FreeName();
            } else {
                LetCallbackFreeName();
            }
        }
        if (orderly) {
            Drain();
            FreeName();
        }
    }

private:
    unsigned Pick(unsigned below) { return std::uniform_int_distribution<unsigned>(0, below - 1)(random); }
    TarvoPriority Priority() { return Pick(4) == 0 ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL; }

    // Lives as long as any copy of the callback.
    std::shared_ptr<OnDestruction> Token() {
        ++ledger.made;
        return std::make_shared<OnDestruction>([&books = ledger] { ++books.gone; });
    }

    Generation &Current() {
        if (!generation) {
            generation = std::make_shared<Generation>();
            generation->name = std::to_string(id) + "_" + std::to_string(Pick(3));
        }
        return *generation;
    }

    void DropSerial(const std::function<void()> &extra) {
        Generation &current = Current();
        const int number = current.accepted;
        const int ret = pool.DropTo(
            current.name,
            [&books = ledger, own = generation, number, extra, token = Token()] {
                books.overlapping += own->inside.fetch_add(1) == 0 ? 0 : 1;
                books.outOfOrder += own->ran.fetch_add(1) == number ? 0 : 1;
                ++books.ranSerial;
                extra();
                own->inside.fetch_sub(1);
                own->finished.Add();
            },
            Priority());
        if (ret == 0) {
            ++current.accepted;
            ++ledger.acceptedSerial;
        } else {
            ++(ret == -EBUSY ? ledger.refused : ledger.unexpected);
        }
    }

    void SubmitSerial() {
        for (unsigned i = Pick(20); i > 0; --i) {
            DropSerial([work = Pick(2000)] { Spin(work); });
        }
    }

    void SubmitConcurrent() {
        const int ret = pool.DropAsyncTask(
            [&books = ledger, token = Token(), work = Pick(2000)] {
                Spin(work);
                books.ranConcurrent.Add();
            },
            Priority());
        ++(ret == 0 ? ledger.acceptedConcurrent : ledger.unexpected);
    }

    void FreeName() {
        if (generation) {
            ledger.unexpected += pool.FreeWorker(generation->name) == 0 ? 0 : 1;
            generation.reset();
        }
    }

    // As on a remote close: the last callback of a name gives its worker back itself.
    void LetCallbackFreeName() {
        Drain();
        const int before = Current().accepted;
        DropSerial([&callbacks = pool, own = generation] {
            callbacks.FreeWorker(own->name);
            own->freed.Open();
        });
        if (Current().accepted > before) {
            generation->freed.Wait(); // or it would free a later use of the name
            FreeName();               // unknown by now
        }
    }

    void Drain() {
        if (generation) {
            generation->finished.WaitFor(generation->accepted);
        }
    }

    CallbackPool &pool;
    Ledger &ledger;
    const unsigned id;
    std::mt19937 random;
    std::shared_ptr<Generation> generation;
};

class CallbackPoolStressTest : public LeakCheckedTest {
protected:
    void Round(bool orderly) {
        const unsigned seed = std::random_device()();
        SCOPED_TRACE("seed " + std::to_string(seed));
        Ledger ledger;
        {
            CallbackPool pool(std::make_shared<WorkerPool>(NORMAL_WORKERS, URGENT_WORKERS));
            std::vector<std::unique_ptr<ScopedThread>> threads;
            for (unsigned id = 0; id < SUBMITTERS; ++id) {
                threads.push_back(
                    std::make_unique<ScopedThread>([&, id] { Submitter(pool, ledger, id, seed + id).Run(orderly); }));
            }
            threads.clear();
            if (orderly) {
                ledger.ranConcurrent.WaitFor(ledger.acceptedConcurrent);
            }
            pool.Destroy();
        }
        Check(ledger, orderly);
    }

    static void Check(Ledger &ledger, bool orderly) {
        EXPECT_EQ(ledger.outOfOrder, 0);
        EXPECT_EQ(ledger.overlapping, 0);
        EXPECT_EQ(ledger.unexpected, 0);
        EXPECT_EQ(ledger.gone, ledger.made); // run, dropped or refused: released once each
        EXPECT_GT(ledger.ranSerial, 0);
        EXPECT_LE(ledger.ranSerial, ledger.acceptedSerial);
        if (orderly) {
            EXPECT_EQ(ledger.ranConcurrent.Count(), ledger.acceptedConcurrent);
        } else {
            EXPECT_LE(ledger.ranConcurrent.Count(), ledger.acceptedConcurrent);
        }
    }
};

TEST_F(CallbackPoolStressTest, EveryCallbackRunsInItsTurnOrIsDropped) {
    for (Rounds rounds(5, 2 * ROUND_LIMIT); rounds.Next();) {
        Round(true);
    }
}

TEST_F(CallbackPoolStressTest, TheEndInTheMiddleOfWorkLosesNothing) {
    for (Rounds rounds(5, 2 * ROUND_LIMIT); rounds.Next();) {
        Round(false);
    }
}

// Without names that are freed nothing is dropped: everything runs, and exactly once.
TEST_F(CallbackPoolStressTest, NothingIsLostOrDoubledBetweenManySubmitters) {
    constexpr int submitters = 8;
    constexpr int ahead = 900; // of what a queue takes
    CallbackPool pool(std::make_shared<WorkerPool>(64, 4));
    std::vector<Tally> ran(submitters);
    std::vector<int> accepted(submitters);
    std::atomic<int> outOfOrder{0};
    std::vector<std::unique_ptr<ScopedThread>> threads;
    for (int id = 0; id < submitters; ++id) {
        threads.push_back(std::make_unique<ScopedThread>([&, id] {
            const auto index = static_cast<std::size_t>(id);
            const std::string name = std::to_string(id);
            for (Rounds callbacks(5000, ROUND_LIMIT); callbacks.Next(); ++accepted[index]) {
                const int number = accepted[index];
                ran[index].WaitFor(number - ahead);
                const auto callback = [&, index, number] {
                    outOfOrder += ran[index].Count() == number ? 0 : 1;
                    ran[index].Add();
                };
                const auto priority = number % 7 == 0 ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL;
                ASSERT_EQ(pool.DropTo(name, callback, priority), 0);
            }
            ran[index].WaitFor(accepted[index]);
        }));
    }
    threads.clear();
    pool.Destroy();
    for (std::size_t index = 0; index < submitters; ++index) {
        EXPECT_GT(accepted[index], 0);
        EXPECT_EQ(ran[index].Count(), accepted[index]);
    }
    EXPECT_EQ(outOfOrder, 0);
}

// Submitters that come while the pool ends are refused or wait for ever; they crash nothing, and what they submitted
// has run when Destroy returns, or never runs.
TEST(CallbackPoolLateStressTest, SubmissionsDuringTheEndAreSafe) {
    ChildProcess child([](Channel &) -> int {
        std::atomic<int> late{0};
        for (Rounds rounds(60, 3 * ROUND_LIMIT); rounds.Next();) {
            // Shared with the submitters that wait for ever.
            auto pool = std::make_shared<CallbackPool>(std::make_shared<WorkerPool>(4, 2));
            auto ended = std::make_shared<std::atomic<bool>>(false);
            auto submitted = std::make_shared<Tally>();
            for (int id = 0; id < 3; ++id) {
                std::thread([pool, ended, submitted, id, &late] {
                    const auto callback = [ended, &late] { late += *ended ? 1 : 0; };
                    const auto priority = id == 0 ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL;
                    while (pool->DropAsyncTask(callback, priority) != -EACCES) {
                        pool->DropTo(std::to_string(id), callback, priority);
                        submitted->Add();
                        if (id == 2) {
                            pool->FreeWorker("2");
                        }
                    }
                }).detach();
            }
            submitted->WaitFor(20);
            pool->Destroy();
            *ended = true;
            if (pool->NumWorkers() != 0) {
                std::exit(2);
            }
        }
        std::exit(late == 0 ? 0 : 1);
    });
    EXPECT_EQ(child.Wait(), 0);
}

} // namespace
