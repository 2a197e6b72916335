#include "base/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

#include "support/LeakCheck.h"

using namespace tarvo_test;

namespace {

int OpenSomething() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }
bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

class UniqueFdTest : public LeakCheckedTest {};

TEST_F(UniqueFdTest, ItsEndClosesTheDescriptor) {
    int number = -1;
    {
        const UniqueFd fd(OpenSomething());
        number = fd.Get();
        ASSERT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
}

TEST_F(UniqueFdTest, WhatWasReleasedStaysOpen) {
    int number = -1;
    {
        UniqueFd fd(OpenSomething());
        number = fd.Release();
        EXPECT_EQ(fd.Get(), -1);
    }
    EXPECT_TRUE(IsOpen(number));
    close(number);
}

TEST_F(UniqueFdTest, TheResultOfAnOpenThatFailedIsKeptAndNotClosed) {
    UniqueFd fd(-ENXIO);
    EXPECT_EQ(fd.Get(), -ENXIO);
    EXPECT_EQ(fd.Close(), 0);
}

TEST_F(UniqueFdTest, CloseTellsWhatTheSystemSaysAndDoesNotRepeatIt) {
    const int number = OpenSomething();
    UniqueFd fd(number);
    close(number);
    EXPECT_EQ(fd.Close(), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(fd.Get(), -1);
    EXPECT_EQ(fd.Close(), 0);
}

TEST_F(UniqueFdTest, TheOwnerBeforeHasNothingLeftToClose) {
    UniqueFd first(OpenSomething());
    const int number = first.Get();
    UniqueFd second(std::move(first));
    { const UniqueFd gone = std::move(first); }
    EXPECT_TRUE(IsOpen(number));
    second.Reset();
    EXPECT_FALSE(IsOpen(number));
}

} // namespace
