// As many pipes at once as the table holds, each of them in use.
#include <sys/resource.h>

#include <cerrno>
#include <vector>

#include "ApiFixture.h"
#include "support/Process.h"

namespace tarvo_test {
namespace {

constexpr int MAX_PIPES = 1024;
constexpr rlim_t DESCRIPTORS = 4096;

void AllowDescriptors() {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GE(limit.rlim_max, DESCRIPTORS);
    limit.rlim_cur = std::max(limit.rlim_cur, DESCRIPTORS);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

std::string NameOf(const std::string &base, int index) { return base + "_" + std::to_string(index); }

// The other process: one end for each of the pipes, all of which answer.
int AnswerOnAll(const std::string &near, const std::string &far, Channel &channel) {
    AllowDescriptors();
    if (!channel.Await()) {
        return 1;
    }
    for (int i = 0; i < MAX_PIPES; ++i) {
        const std::string own = NameOf(far, i);
        TarvoAttr attr = MakeAttr(own, near, TARVO_MODE_CLIENT, Echo);
        attr.isConcur = true;
        EXPECT_EQ(TarvoOpen(&attr), i + 2);
    }
    channel.Signal();
    EXPECT_TRUE(channel.Await());
    TarvoCfgFinishServer();
    return 0;
}

TEST(CapacityTest, TableHoldsA1024PipesThatAllAnswerAndRefusesTheNext) {
    FifoDirectory();
    const std::string near = UniqueName("near");
    const std::string far = UniqueName("far");
    ChildProcess other([&](Channel &channel) { return AnswerOnAll(near, far, channel); });
    AllowDescriptors();
    const SyslogCapture log;
    for (int i = 0; i < MAX_PIPES; ++i) {
        const std::string target = NameOf(far, i);
        TarvoAttr attr = MakeAttr(near, target, TARVO_MODE_SERVER);
        ASSERT_EQ(TarvoOpen(&attr), i + 2);
    }
    other.Signal();
    ASSERT_TRUE(other.Await());

    const std::string extra = NameOf(far, MAX_PIPES);
    TarvoAttr attr = MakeAttr(near, extra, TARVO_MODE_SERVER);
    EXPECT_EQ(TarvoOpen(&attr), -ENOMEM);
    EXPECT_EQ(TarvoOpen(&attr), -ENOMEM);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Cannot alloc new fd, ret = -12"), 1U) << "restrained";
    for (int i = 0; i < MAX_PIPES; ++i) {
        ASSERT_EQ(Ask(i + 2, "ping " + std::to_string(i)), "ping " + std::to_string(i));
    }

    EXPECT_EQ(TarvoClosePipe(2), 0);
    EXPECT_EQ(TarvoOpen(&attr), MAX_PIPES + 2);
    EXPECT_EQ(Ask(3, "ping"), "ping");
    other.Signal();
    EXPECT_EQ(other.Wait(), 0);
    TarvoCfgFinishServer();
    EXPECT_TRUE(OwnFifoFiles().empty());
}

} // namespace
} // namespace tarvo_test
