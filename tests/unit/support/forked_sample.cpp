// Tests that are not this project's: forked_test.sh looks at what is made of them. With FORKED_SAMPLE=bad some fail.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/Names.h"

namespace {

bool IsBad() { return std::getenv("FORKED_SAMPLE") != nullptr; }

int runs = 0; // of tests in this process

class Each : public testing::TestWithParam<int> {};

TEST_P(Each, MeetsAFreshProcess) { EXPECT_EQ(++runs, 1); }
INSTANTIATE_TEST_SUITE_P(Two, Each, testing::Values(1, 2));

TEST(Alone, HasNamesOfItsOwn) {
    std::printf("tag %s\n", tarvo_test::NameTag().c_str());
    EXPECT_EQ(tarvo_test::NameTag(), "t" + std::to_string(getpid()) + "_");
}

TEST(Alone, MayFail) {
    if (IsBad()) {
        ADD_FAILURE() << "on purpose";
    }
}

TEST(Alone, MayCrash) {
    if (IsBad()) {
        std::abort();
    }
}

TEST(Alone, MayEndTheProcess) {
    if (IsBad()) {
        _exit(3);
    }
}

TEST(Alone, IsSkipped) { GTEST_SKIP() << "no reason"; }

} // namespace
