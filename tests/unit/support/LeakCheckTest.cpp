#include "support/LeakCheck.h"

#include <fcntl.h>
#include <gmock/gmock-more-matchers.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "support/Eventually.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(LeakCheck, IsContentWithoutALeak) {
    const ScopedLeakCheck check;
    const int fd = open("/dev/null", O_RDONLY);
    std::thread([] {}).join();
    close(fd);
    EXPECT_THAT(check.Leaks(), IsEmpty());
}

TEST(LeakCheck, SeesADescriptorLeftOpenAndOneClosedTooOften) {
    ScopedLeakCheck check(0ms);
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_THAT(check.Leaks(), ElementsAre(HasSubstr("left behind: descriptor " + std::to_string(fd) + " /dev/null")));
    {
        ScopedLeakCheck inner(0ms);
        close(fd);
        EXPECT_THAT(inner.Leaks(), ElementsAre(HasSubstr("gone: descriptor " + std::to_string(fd))));
        inner.Dismiss();
    }
    EXPECT_THAT(check.Leaks(), IsEmpty());
}

TEST(LeakCheck, SeesAThreadThatStays) {
    const ScopedLeakCheck check(10ms);
    std::promise<void> end;
    std::thread thread([&] { end.get_future().wait(); });
    EXPECT_THAT(check.Leaks(), ElementsAre(HasSubstr("left behind: thread ")));
    end.set_value();
    thread.join();
}

TEST(LeakCheck, WaitsForThreadsThatAreAboutToEnd) {
    const ScopedLeakCheck check;
    std::promise<void> end;
    std::thread([done = end.get_future()] { done.wait(); }).detach();
    end.set_value();
    EXPECT_THAT(check.Leaks(), IsEmpty());
}

TEST(LeakCheck, SeesAFileOfThisProcessInTheFifoDirectory) {
    const ScopedLeakCheck check(0ms);
    const std::string name = UniqueName("leak");
    const std::string path = FifoPath("someone_" + name, name);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(check.Leaks(), ElementsAre(HasSubstr("left behind: file someone_" + name + "__to__" + name)));
    RemoveOwnFifoFiles();
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
}

TEST(LeakCheck, IgnoresFilesOfOtherProcesses) {
    const ScopedLeakCheck check(0ms);
    // Another process's tag that ends like ours.
    const std::string path = FifoDirectory() + "x" + UniqueName("other");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_THAT(check.Leaks(), IsEmpty());
    unlink(path.c_str());
}

TEST(Names, AreUniqueAndCarryTheTag) {
    const std::string first = UniqueName("srv");
    const std::string second = UniqueName("srv");
    EXPECT_NE(first, second);
    EXPECT_EQ(first.rfind(NameTag(), 0), 0U);
    EXPECT_LE(first.size(), 40U);
    EXPECT_EQ(FifoPath("a", "b"), "/dev/shm/velm/tarvo/a__to__b");
    struct stat status {};
    EXPECT_EQ(stat(FifoDirectory().c_str(), &status), 0);
    EXPECT_TRUE(S_ISDIR(status.st_mode));
}

TEST(Eventually, TellsWhetherTheConditionCame) {
    int rounds = 0;
    EXPECT_TRUE(Eventually([&] { return ++rounds == 5; }));
    EXPECT_FALSE(Eventually([] { return false; }, 1ms));
}

class CheckedFixture : public LeakCheckedTest {};

TEST_F(CheckedFixture, PassesWhatCleansUp) {
    std::thread([] {}).detach();
    const int fd = open("/dev/null", O_RDONLY);
    EXPECT_GE(fd, 0);
    close(fd);
}

} // namespace
} // namespace tarvo_test
