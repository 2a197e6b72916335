// The subcommands that look at a running system leave no trace in it.
#include <sys/epoll.h>
#include <sys/inotify.h>

#include <atomic>

#include "support/SyslogCapture.h"
#include "tarvo.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using NoEventTest = ToolTest;
using testing::AllOf;
using testing::Ge;
using testing::Le;

// Each of them once.
void Look(const std::vector<std::string> &more) {
    for (const std::vector<std::string> &arguments :
         std::vector<std::vector<std::string>>{{"list"},
                                               {"list", "--json"},
                                               {"watch", "-c", "3", "-i", "1ms"},
                                               {"doctor"},
                                               {"clean", "--min-age", "0"}}) {
        const ToolResult result = RunTool(Joined(arguments, more));
        EXPECT_NE(result.status, 1) << result.err;
        EXPECT_NE(result.status, 2) << result.err;
    }
}

// Counts how often files are opened, by anybody.
class OpenCount {
public:
    explicit OpenCount(const std::vector<std::string> &paths) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        for (const std::string &path : paths) {
            EXPECT_GE(inotify_add_watch(fd_, path.c_str(), IN_OPEN | IN_CLOSE | IN_ATTRIB | IN_MOVE_SELF), 0) << path;
        }
    }
    ~OpenCount() { close(fd_); }
    OpenCount(const OpenCount &) = delete;
    OpenCount &operator=(const OpenCount &) = delete;
    // Events since the last call.
    bool Any() const {
        alignas(inotify_event) char events[65536];
        return read(fd_, events, sizeof(events)) > 0;
    }

private:
    const int fd_;
};

TEST_F(NoEventTest, IdleReaderSeesNothing) {
    const ScratchDirectory directory;
    const std::string path = directory.AddFifo("srv");
    const Opened reader(path, O_RDONLY);
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN | EPOLLHUP | EPOLLET;
    ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, reader.Fd(), &event), 0);
    while (epoll_wait(epoll, &event, 1, 0) > 0) {
    }
    const OpenCount opens({path});
    Look({"--directory", directory.Path()});
    EXPECT_EQ(epoll_wait(epoll, &event, 1, 0), 0);
    EXPECT_FALSE(opens.Any());
    { const Opened passing(path, O_WRONLY); }
    EXPECT_EQ(epoll_wait(epoll, &event, 1, 0), 1) << "a writer that passes by is an event";
    EXPECT_TRUE(opens.Any());
    close(epoll);
}

std::atomic<int> requests{0};
std::atomic<int> connects{0};
std::atomic<int> closes{0};

void CountAndAnswer(int pipe, TarvoRequest *request) {
    if (request == nullptr) {
        ++closes;
        return;
    }
    ++requests;
    TarvoResponse response = {request->id, request->data, request->size};
    TarvoSendResponse(pipe, &response);
}

TEST_F(NoEventTest, BusyServerSeesItsClientsOnly) {
    const SyslogCapture log;
    TarvoServerAttr attr;
    attr.selfName = name.c_str();
    attr.callback = CountAndAnswer;
    attr.openCallback = [](int, const char *, uint32_t) { ++connects; };
    ASSERT_EQ(TarvoCreateServer(&attr), 0);
    ToolProcess client({"ping", name, "-i", "100us", "--json"});
    client.AwaitOut("time_us", 3);
    const std::string clientName = "tarvoctl_" + std::to_string(client.Pid());
    const OpenCount opens({FifoDirectory() + name, FifoPath(name, clientName), FifoPath(clientName, name)});
    // After an answer all four ends of the pipe are open, and stay so.
    Look({});
    EXPECT_FALSE(opens.Any());
    client.AwaitOut("time_us", 100);
    // Notices of slow steps may come on a busy machine, and tell nothing of the tool.
    EXPECT_EQ(log.Count(LOG_ERR, "") + log.Count(LOG_WARNING, ""), 0U) << testing::PrintToString(log.Messages());
    const nlohmann::json summary = client.Interrupt().Json().back()["summary"];
    EXPECT_EQ(summary["lost"], 0);
    // The signal may have ended a call whose request the server has got.
    const int inFlight = requests.load() - summary["calls"].get<int>();
    EXPECT_THAT(inFlight, AllOf(Ge(0), Le(1))) << "the server got what the client sent, and nothing else";
    EXPECT_EQ(connects, 1);
    TarvoCfgFinishServer();
    unlink((FifoDirectory() + name).c_str());
    EXPECT_TRUE(opens.Any()) << "the closes at the end are seen";
}

} // namespace
} // namespace tarvo_test
