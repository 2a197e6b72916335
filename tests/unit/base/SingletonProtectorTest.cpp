#include "base/SingletonProtector.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <optional>
#include <vector>

#include "support/Process.h"
#include "support/Threads.h"

namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;
using tarvo_test::Threads;

struct Guarded {
    explicit Guarded(std::atomic<int> &count) : destroyed(count) {}
    ~Guarded() { ++destroyed; }
    Guarded(const Guarded &) = delete;
    Guarded &operator=(const Guarded &) = delete;
    std::atomic<int> &destroyed;
};

class SingletonProtectorTest : public testing::Test {
protected:
    std::atomic<int> destroyed{0};
    std::shared_ptr<Guarded> owner = std::make_shared<Guarded>(destroyed);
    std::optional<SingletonProtector<Guarded>> protector{std::in_place, owner};
};

TEST_F(SingletonProtectorTest, GivesTheObjectWhileItIsAlive) {
    EXPECT_EQ(protector->Get(), owner);
    EXPECT_EQ(protector->Get(), owner);
}

TEST_F(SingletonProtectorTest, DoesNotKeepTheObjectAlive) {
    EXPECT_EQ(owner.use_count(), 1);
    owner.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(protector->Get(), nullptr);
}

TEST_F(SingletonProtectorTest, WhatItGaveStaysValid) {
    const std::shared_ptr<Guarded> held = protector->Get();
    owner.reset();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(protector->Get(), held);
    protector.reset();
    EXPECT_EQ(destroyed, 0);
}

TEST_F(SingletonProtectorTest, DisabledItGivesNothingThoughTheObjectLives) {
    protector->Disable();
    EXPECT_EQ(protector->Get(), nullptr);
    protector->Disable();
    EXPECT_EQ(protector->Get(), nullptr);
    EXPECT_EQ(destroyed, 0);
}

TEST_F(SingletonProtectorTest, ItsEndLeavesTheObjectToItsOwner) {
    protector.reset();
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(owner.use_count(), 1);
}

TEST_F(SingletonProtectorTest, GuardsNothingAtAllIfThereIsNothing) {
    SingletonProtector<Guarded> empty{nullptr};
    EXPECT_EQ(empty.Get(), nullptr);
}

TEST_F(SingletonProtectorTest, ReadersMeetItsDisablingInAnyState) {
    std::atomic<bool> sawLate{false};
    std::atomic<bool> disabled{false};
    std::promise<void> go;
    const std::shared_future<void> start = go.get_future().share();
    Threads readers(3, [&, start](int) {
        start.wait();
        for (bool got = true; got;) {
            const bool after = disabled;
            got = protector->Get() != nullptr;
            sawLate = sawLate || (after && got);
        }
    });
    go.set_value();
    protector->Disable();
    disabled = true;
    readers.Join();
    EXPECT_FALSE(sawLate);
}

TEST_F(SingletonProtectorTest, ReadersMeetTheEndOfTheObjectInAnyState) {
    std::promise<void> go;
    const std::shared_future<void> start = go.get_future().share();
    Threads readers(3, [&, start](int) {
        start.wait();
        while (const auto held = protector->Get()) {
            EXPECT_EQ(held->destroyed, 0);
        }
    });
    go.set_value();
    owner.reset();
    readers.Join();
    EXPECT_EQ(destroyed, 1);
}

// The pattern of the library's process-wide objects: owner first, protector second, both destroyed at exit.
std::shared_ptr<int> ProcessWide() {
    static const std::shared_ptr<int> instance = std::make_shared<int>(7);
    static SingletonProtector<int> guard(instance);
    return guard.Get();
}

bool checkAtExit = false;

void AfterTheStatics() {
    if (checkAtExit) {
        _exit(ProcessWide() == nullptr ? 33 : 1);
    }
}

__attribute__((constructor)) void RegisterFirst() { std::atexit(AfterTheStatics); }

TEST_F(SingletonProtectorTest, CallersDuringProcessExitGetNothing) {
    const int code = ChildProcess([](Channel &) -> int {
                         if (ProcessWide() == nullptr) {
                             return 1;
                         }
                         checkAtExit = true;
                         std::exit(2);
                     }).Wait();
    EXPECT_EQ(code, 33);
}

} // namespace
