// tarvoctl wait.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "support/SyslogCapture.h"
#include "tarvo.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using WaitTest = ToolTest;

TEST_F(WaitTest, ServerThatIsThereEndsItAtOnce) {
    ToolServer server(name);
    const ToolResult result = RunTool({"wait", name});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, IsEmpty());
    EXPECT_THAT(result.err, IsEmpty());
    EXPECT_EQ(RunTool({"wait", name, "--timeout", "0"}).status, 0) << "one look is enough";
    const nlohmann::json answer = RunTool({"wait", name, "--json"}).Json().at(0);
    EXPECT_EQ(answer["server"], name);
    EXPECT_GE(answer["time_us"].get<double>(), 0);
}

// Returns once the tool has begun to wait.
void AwaitWaiting(pid_t pid) {
    AwaitFifoDirectory("the tool has looked", [pid] {
        // The change that this very function waits for, where nobody else makes one.
        const std::string path = FifoDirectory() + UniqueName("nudge");
        if (mkfifo(path.c_str(), 0600) == 0) {
            unlink(path.c_str());
        }
        std::error_code error;
        for (const auto &entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fdinfo", error)) {
            std::ifstream info(entry.path());
            for (std::string line; std::getline(info, line);) {
                if (line.rfind("inotify wd:", 0) == 0) {
                    return true;
                }
            }
        }
        return false;
    });
}

TEST_F(WaitTest, ServerThatComesLaterEndsIt) {
    ToolProcess wait({"wait", name});
    AwaitWaiting(wait.Pid());
    ToolServer server(name);
    EXPECT_EQ(wait.Wait().status, 0);
    EXPECT_EQ(RunTool({"call", name, "x"}).out, "x") << "it can be called right away";
}

TEST_F(WaitTest, FileThatNobodyReadsIsNoServer) {
    const std::string path = FifoDirectory() + name;
    ASSERT_EQ(mkfifo(path.c_str(), 0660), 0);
    const ToolResult stale = RunTool({"wait", name, "--timeout", "10ms"});
    EXPECT_EQ(stale.status, 4);
    EXPECT_THAT(stale.err, HasSubstr("its file is there, and nobody reads it"));
    {
        ToolProcess wait({"wait", name});
        AwaitWaiting(wait.Pid());
        const Opened reader(path, O_RDONLY);
        EXPECT_EQ(wait.Wait().status, 0) << "the reader came, and the file stayed what it was";
    }
    unlink(path.c_str());
}

TEST_F(WaitTest, OtherFilesAreNotOpened) {
    const std::string path = FifoDirectory() + name;
    std::ofstream(path) << "text";
    EXPECT_EQ(RunTool({"wait", name, "--timeout", "0"}).status, 4);
    unlink(path.c_str());
    ASSERT_EQ(symlink("/dev/null", path.c_str()), 0);
    EXPECT_EQ(RunTool({"wait", name, "--timeout", "0"}).status, 4);
    unlink(path.c_str());
}

TEST_F(WaitTest, TimeOutIsToldAndKept) {
    const auto start = std::chrono::steady_clock::now();
    const ToolResult result = RunTool({"wait", name, "--timeout", "30ms"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(result.status, 4);
    EXPECT_EQ(result.err, "tarvoctl: no server has come under the name '" + name + "' in time\n");
}

TEST_F(WaitTest, InterruptEndsIt) {
    ToolProcess wait({"wait", UniqueName("nobody")});
    AwaitWaiting(wait.Pid());
    EXPECT_EQ(wait.Interrupt().status, 130);
}

TEST_F(WaitTest, WaitingWritesNoLines) {
    const ToolResult result = RunTool({"wait", UniqueName("nobody"), "--log", "--timeout", "300ms"});
    EXPECT_EQ(result.status, 4);
    EXPECT_THAT(result.err, testing::MatchesRegex("tarvoctl: no server has come under the name '[^\n]*\n"));
}

TEST_F(WaitTest, ServerSeesNothingOfIt) {
    const SyslogCapture log;
    TarvoServerAttr attr;
    attr.selfName = name.c_str();
    attr.callback = [](int, TarvoRequest *) {};
    ASSERT_EQ(TarvoCreateServer(&attr), 0);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(RunTool({"wait", name}).status, 0);
    }
    EXPECT_EQ(RunTool({"call", name, "x", "--timeout", "0"}).status, 4) << "it serves as before";
    EXPECT_EQ(log.Count(LOG_ERR, "") + log.Count(LOG_WARNING, ""), 0U) << testing::PrintToString(log.Messages());
    TarvoCfgFinishServer();
    unlink((FifoDirectory() + name).c_str());
}

TEST_F(WaitTest, DirectoryThatIsMadeLaterIsFound) {
    TARVO_SKIP_UNLESS_ROOT();
    ExpectRun(RunWithoutFifoDirectory([] {
        ToolProcess wait({"wait", "srv", "--timeout", "60s"});
        EXPECT_EQ(RunTool({"init", "--group", std::to_string(getgid())}).status, 0);
        ToolServer server("srv");
        EXPECT_EQ(wait.Wait().status, 0);
        EXPECT_EQ(server.Interrupt().status, 0);
        return 0;
    }));
}

TEST_F(WaitTest, MissingRightIsTold) {
    TARVO_SKIP_UNLESS_ROOT();
    ToolServer server(name, {"--group", "0"});
    ExpectRun(RunAsOtherUser([&] {
        const ToolResult result = RunTool({"wait", name, "--timeout", "10ms"});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, "tarvoctl: no right to the FIFO of '" + name + "' so far (see: tarvoctl doctor)\n");
        return 0;
    }));
}

TEST_F(WaitTest, NamesAreRefusedAsByTheLibrary) {
    std::vector<std::string> names = {"a..b", std::string(101, 'x'), std::string(100, 'x'), "a.b", "a b", "a#b"};
    for (const char bad : std::string("|;><`&()$")) {
        names.push_back(std::string("a") + bad);
    }
    for (const std::string &given : names) {
        const bool refused = RunTool({"call", given, "x"}).status == 2;
        EXPECT_EQ(RunTool({"wait", given, "--timeout", "0"}).status, refused ? 2 : 4) << given;
    }
}

TEST_F(WaitTest, WrongUsageIsRefused) {
    EXPECT_EQ(RunTool({"wait"}).status, 2);
    EXPECT_EQ(RunTool({"wait", "a..b"}).status, 2);
    EXPECT_EQ(RunTool({"wait", std::string(101, 'x'), "--timeout", "0"}).status, 2);
    EXPECT_EQ(RunTool({"wait", "srv", "--timeout", "soon"}).status, 2);
}

} // namespace
} // namespace tarvo_test
