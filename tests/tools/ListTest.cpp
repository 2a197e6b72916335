// tarvoctl list and watch.
#include <sys/wait.h>

#include <algorithm>
#include <sstream>

#include "tarvo.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using ListTest = ToolTest;
using WatchTest = ToolTest;

json ListOf(const std::vector<std::string> &more = {}) {
    const ToolResult result = RunTool(Joined({"list", "--json"}, more));
    EXPECT_EQ(result.status, 0) << result.err;
    return result.Json().at(0);
}

json ListOf(const ScratchDirectory &directory) { return ListOf({"--directory", directory.Path()}); }

json Named(const json &list, const std::string &name) {
    for (const json &entry : list) {
        if (entry["name"] == name) {
            return entry;
        }
    }
    return json();
}

// The pipe of which one end has that name.
json PipeOf(const json &list, const std::string &name) {
    for (const json &pipe : list["pipes"]) {
        if (pipe["ends"][0]["name"] == name || pipe["ends"][1]["name"] == name) {
            return pipe;
        }
    }
    return json();
}

TEST_F(ListTest, ServerAndPipeAreShownWithBothEnds) {
    ToolServer server(name);
    ToolProcess client({"ping", name, "-i", "10ms"});
    client.AwaitOut("time=");
    const json list = ListOf();
    const json entry = Named(list["servers"], name);
    EXPECT_EQ(entry["state"], "live");
    EXPECT_EQ(entry["pipes"], 1);
    EXPECT_EQ(entry["mode"], "0660");
    EXPECT_EQ(entry["path"], FifoDirectory() + name);
    EXPECT_FALSE(entry["user"].get<std::string>().empty());
    EXPECT_FALSE(entry["group"].get<std::string>().empty());
    EXPECT_TRUE(entry.contains("label"));
    ASSERT_EQ(entry["processes"].size(), 1U);
    EXPECT_EQ(entry["processes"][0]["pid"], server->Pid());
    EXPECT_EQ(entry["processes"][0]["process"], "tarvoctl");
    EXPECT_EQ(entry["processes"][0]["user"], entry["user"]) << "whoever runs this test";
    EXPECT_TRUE(entry["processes"][0].contains("label"));
    const json pipe = PipeOf(list, name);
    EXPECT_EQ(pipe["state"], "live");
    EXPECT_EQ(pipe["ends"][0]["name"], name) << "the server's end comes first";
    EXPECT_EQ(pipe["ends"][0]["processes"][0]["pid"], server->Pid());
    EXPECT_EQ(pipe["ends"][1]["name"], "tarvoctl_" + std::to_string(client.Pid()));
    EXPECT_EQ(pipe["ends"][1]["processes"][0]["pid"], client.Pid());
    EXPECT_EQ(pipe["files"].size(), 2U);
    client.Interrupt();
}

TEST_F(ListTest, TableShowsTheSame) {
    ToolServer server(name);
    ToolProcess client({"ping", name, "-i", "10ms"});
    client.AwaitOut("time=");
    const ToolResult result = RunTool({"list"});
    for (const char *heading : {"SERVER", "STATE", "PROCESS", "PIPES", "MODE", "OWNER", "GROUP", "LABEL", "PIPE "}) {
        EXPECT_THAT(result.out, HasSubstr(heading));
    }
    EXPECT_THAT(result.out, HasSubstr(name));
    EXPECT_THAT(result.out, HasSubstr("tarvoctl_" + std::to_string(client.Pid())));
    EXPECT_THAT(result.out, HasSubstr(std::to_string(server->Pid()) + " tarvoctl ("));
    EXPECT_THAT(result.out, HasSubstr("rw-rw----"));
    EXPECT_THAT(result.out, Not(HasSubstr("\033[")));
    client.Interrupt();
}

TEST_F(ListTest, StatesFollowTheHolders) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string server = directory.AddFifo("srv");
    const std::string request = directory.AddFifo("ada_1__to__srv");
    const std::string answer = directory.AddFifo("srv__to__ada_1");
    EXPECT_EQ(ListOf(directory)["servers"][0]["state"], "stale");
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "stale");

    const Opened serving(server, O_RDONLY);
    EXPECT_EQ(ListOf(directory)["servers"][0]["state"], "live");
    EXPECT_EQ(ListOf(directory)["servers"][0]["processes"][0]["pid"], getpid());

    const Opened reading(request, O_RDONLY);
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "half") << "the server waits for its client";
    const Opened writing(request, O_WRONLY);
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "live");
    EXPECT_EQ(ListOf(directory)["servers"][0]["pipes"], 1);
}

TEST_F(ListTest, StoppedServerIsToldFromALivingOne) {
    ToolServer server(name);
    EXPECT_EQ(Named(ListOf()["servers"], name)["state"], "live");
    server->Freeze();
    const json stopped = Named(ListOf()["servers"], name);
    EXPECT_EQ(stopped["state"], "stopped");
    EXPECT_EQ(stopped["processes"][0]["stopped"], true);
    EXPECT_THAT(RunTool({"list"}).out, HasSubstr(std::to_string(server->Pid()) + " tarvoctl (" +
                                                 stopped["user"].get<std::string>() + ", stopped)"));
    EXPECT_EQ(RunTool({"serve", name}).status, 1) << "its name is not free";
    ASSERT_EQ(kill(server->Pid(), SIGCONT), 0);
    ASSERT_EQ(waitpid(server->Pid(), nullptr, WCONTINUED), server->Pid());
    EXPECT_EQ(Named(ListOf()["servers"], name)["state"], "live");
}

TEST_F(ListTest, StoppedServerOfAnotherUserIsToldAsWell) {
    TARVO_SKIP_UNLESS_ROOT();
    ToolServer server(name);
    server->Freeze();
    ExpectRun(RunAsOtherUser([&] {
        const ToolResult result = RunTool({"list", "--json"});
        EXPECT_EQ(Named(result.Json().at(0)["servers"], name)["state"], "stopped") << "its lock tells the process";
        return 0;
    }));
    kill(server->Pid(), SIGCONT);
}

// A process with a pipe that it has opened in server mode.
class WaitingSide {
public:
    WaitingSide(const std::string &self, const std::string &target, int timeout)
        : process_([=](Channel &parent) {
              TarvoAttr attr;
              attr.selfName = self.c_str();
              attr.targetName = target.c_str();
              attr.mode = TARVO_MODE_SERVER;
              attr.timeout = timeout;
              const int pipe = TarvoOpen(&attr);
              if (pipe <= 0) {
                  return 1;
              }
              parent.Signal();
              const bool told = parent.Await();
              TarvoClosePipe(pipe);
              return told ? 0 : 1;
          }) {
        EXPECT_TRUE(process_.Await());
    }
    ~WaitingSide() {
        process_.Signal();
        EXPECT_EQ(process_.Wait(), 0);
    }
    WaitingSide(const WaitingSide &) = delete;
    WaitingSide &operator=(const WaitingSide &) = delete;
    pid_t Pid() const { return process_.Pid(); }

private:
    ChildProcess process_;
};

// With an open time-out, each side also tries to open the end that it writes, and one of them may get there.
class CrossedTest : public ToolTest, public testing::WithParamInterface<int> {};

TEST_P(CrossedTest, PipeThatBothSidesOpenInServerModeIsToldFromALivingOne) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const std::string earlier = UniqueName("a");
    const std::string later = UniqueName("b");
    const WaitingSide first(earlier, later, GetParam());
    EXPECT_EQ(PipeOf(ListOf(), earlier)["state"], "half") << "one side alone only waits";
    const WaitingSide second(later, earlier, GetParam());
    const json pipe = PipeOf(ListOf(), earlier);
    ASSERT_EQ(pipe["state"], "crossed");
    EXPECT_EQ(pipe["ends"][0]["processes"][0]["pid"], first.Pid());
    EXPECT_EQ(pipe["ends"][1]["processes"][0]["pid"], second.Pid());
    EXPECT_THAT(RunTool({"list"}).out, HasSubstr("crossed"));
    const ToolResult doctor = RunTool({"doctor"});
    EXPECT_EQ(doctor.status, 5);
    EXPECT_THAT(doctor.out, HasSubstr("'" + earlier + "' and '" + later +
                                      "' have both opened their pipe in server "
                                      "mode"));
    // Other tests may have a FIFO that was replaced, as this pipe has, for which that is no finding of its own.
    EXPECT_THAT(doctor.out, Not(HasSubstr("reads the FIFO '" + earlier)));
    EXPECT_THAT(doctor.out, Not(HasSubstr("reads the FIFO '" + later)));
}

INSTANTIATE_TEST_SUITE_P(OpenTimeOut, CrossedTest, testing::Values(0, 600000));

TEST_F(ListTest, TwoReadersWithoutAWriterAreCrossed) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string request = directory.AddFifo("ada__to__bob");
    const std::string answer = directory.AddFifo("bob__to__ada");
    const Opened ada(answer, O_RDONLY);
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "half");
    const Opened bob(request, O_RDONLY);
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "crossed");
    const Opened writing(request, O_WRONLY);
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "live");
}

TEST_F(ListTest, PeerOfASideThatStartedAnewIsNotTakenForACrossedPipe) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    const std::string request = directory.AddFifo("ada__to__srv");
    const std::string answer = directory.AddFifo("srv__to__ada");
    const Opened oldWriting(request, O_RDWR); // a client mode side, which its server has left
    const Opened oldReading(answer, O_RDONLY);
    unlink(request.c_str());
    unlink(answer.c_str());
    directory.AddFifo("ada__to__srv");
    directory.AddFifo("srv__to__ada");
    const Opened serving(request, O_RDONLY);
    EXPECT_EQ(ListOf(directory)["pipes"][0]["state"], "half");
}

TEST_F(ListTest, NamesThatHoldTheArrowAreToldApart) {
    const ScratchDirectory directory;
    directory.AddFifo("x__to__y__to__z");
    directory.AddFifo("z__to__x__to__y");
    const json list = ListOf(directory);
    ASSERT_EQ(list["pipes"].size(), 1U);
    EXPECT_EQ(list["pipes"][0]["ends"][0]["name"], "x__to__y");
    EXPECT_EQ(list["pipes"][0]["ends"][1]["name"], "z");
}

TEST_F(ListTest, NamesInFoldersAreFound) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    std::filesystem::create_directory(directory.Path() + "group");
    directory.AddFifo("group/srv");
    EXPECT_EQ(Named(ListOf(directory)["servers"], "group/srv")["state"], "stale");
}

TEST_F(ListTest, ReplacedServerIsUnreachable) {
    ToolServer first(name);
    ToolServer second(name, {"--replace"});
    const json list = ListOf();
    EXPECT_EQ(Named(list["unreachable"], name)["processes"][0]["pid"], first->Pid());
    EXPECT_EQ(Named(list["servers"], name)["processes"][0]["pid"], second->Pid());
}

TEST_F(ListTest, OtherUserSeesServersByTheirLockAndClaimsNothingMore) {
    TARVO_SKIP_UNLESS_ROOT();
    ToolServer server(name);
    const pid_t pid = server->Pid();
    ExpectRun(RunAsOtherUser([&] {
        const ToolResult result = RunTool({"list", "--json"});
        const json entry = Named(result.Json().at(0)["servers"], name);
        EXPECT_EQ(entry["state"], "live");
        EXPECT_EQ(entry["processes"][0]["pid"], pid);
        EXPECT_FALSE(result.Json().at(0)["complete"].get<bool>());
        EXPECT_THAT(result.err, HasSubstr("cannot be seen; root sees all"));
        return 0;
    }));
}

TEST_F(ListTest, EmptyDirectoryIsNoFaultAndAMissingOneIs) {
    const ScratchDirectory directory;
    const ToolResult empty = RunTool({"list", "--directory", directory.Path()});
    EXPECT_EQ(empty.status, 0);
    EXPECT_THAT(empty.out, IsEmpty());
    const ToolResult missing = RunTool({"list", "--directory", directory.Path() + "nothing"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.err, HasSubstr("'tarvoctl init' makes it"));
    EXPECT_THAT(missing.out, IsEmpty());
    EXPECT_EQ(RunTool({"list", "everything"}).status, 2);
}

TEST_F(ListTest, ClosedOutputIsAFailure) {
    const ScratchDirectory directory;
    directory.AddFifo("srv");
    const std::string command =
        std::string(TARVOCTL_PROGRAM) + " list --directory " + directory.Path() + " > /dev/full";
    EXPECT_EQ(WEXITSTATUS(std::system((command + " 2> /dev/null").c_str())), 1);
}

TEST_F(ListTest, ColoursAreForTerminals) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    directory.AddFifo("srv");
    const std::vector<std::string> arguments = {"list", "--directory", directory.Path()};
    EXPECT_THAT(RunToolOnTerminal(arguments), HasSubstr("\033[31mstale"));
    EXPECT_THAT(RunToolOnTerminal({"list", "--directory", directory.Path(), "--color", "never"}),
                Not(HasSubstr("\033[")));
    EXPECT_THAT(RunTool(arguments).out, Not(HasSubstr("\033[")));
    EXPECT_THAT(RunTool({"list", "--directory", directory.Path(), "--color", "always"}).out,
                HasSubstr("\033[31mstale"));
    EXPECT_EQ(RunTool({"list", "--color", "sometimes"}).status, 2);
}

TEST_F(WatchTest, ListIsShownSoManyTimes) {
    const ScratchDirectory directory;
    directory.AddFifo("srv");
    const ToolResult text = RunTool({"watch", "-c", "2", "-i", "1ms", "--directory", directory.Path()});
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("SERVER"), text.out.rfind("SERVER"));
    const ToolResult lines =
        RunTool({"watch", "--count", "3", "--interval", "1ms", "--json", "--directory", directory.Path()});
    ASSERT_EQ(lines.Json().size(), 3U);
    EXPECT_EQ(lines.Json()[2]["servers"][0]["name"], "srv");
    EXPECT_GT(lines.Json()[2]["time"].get<int64_t>(), 0);
}

TEST_F(WatchTest, ChangesAppear) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    ToolProcess watch({"watch", "-i", "1ms", "--json", "--directory", directory.Path()});
    watch.AwaitOut("\"servers\":[]");
    directory.AddFifo("srv");
    watch.AwaitOut("\"stale\"");
    EXPECT_EQ(watch.Interrupt().status, 0);
}

TEST_F(WatchTest, MissingDirectoryIsAwaited) {
    const ScratchDirectory directory;
    const ToolResult result = RunTool({"watch", "-c", "1", "--directory", directory.Path() + "nothing"});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("No such file or directory"));
}

TEST_F(WatchTest, ClosedOutputEndsIt) {
    const ScratchDirectory directory;
    const std::string command =
        std::string(TARVOCTL_PROGRAM) + " watch -i 1ms --directory " + directory.Path() + " > /dev/full";
    EXPECT_EQ(WEXITSTATUS(std::system((command + " 2> /dev/null").c_str())), 1);
}

TEST_F(WatchTest, TerminalIsPaintedInPlace) {
    const ScratchDirectory directory;
    EXPECT_THAT(RunToolOnTerminal({"watch", "-c", "1", "--directory", directory.Path()}),
                testing::StartsWith("\033[H"));
}

TEST_F(WatchTest, WrongUsageIsRefused) {
    EXPECT_EQ(RunTool({"watch", "-c", "0"}).status, 2);
    EXPECT_EQ(RunTool({"watch", "-i", "often"}).status, 2);
}

// The rows of the last picture on a terminal, without codes.
std::vector<std::string> LastPicture(const std::string &text) {
    std::string plain;
    const std::size_t begin = text.rfind("\033[H");
    for (std::size_t i = begin; i != std::string::npos && i < text.size(); ++i) {
        if (text[i] == '\033') {
            i = text.find_first_of("HJKm", i);
        } else if (text[i] != '\r') {
            plain += text[i];
        }
    }
    std::vector<std::string> rows;
    std::istringstream lines(plain);
    for (std::string row; std::getline(lines, row);) {
        rows.push_back(row);
    }
    return rows;
}

TEST_F(WatchTest, PictureFitsTheWindowAndKeepsItsHeader) {
    const ScratchDirectory directory;
    for (int i = 0; i < 40; ++i) {
        directory.AddFifo("a_server_with_quite_a_long_name_" + std::to_string(100 + i));
    }
    const std::vector<std::string> arguments = {"watch", "-c", "2", "-i", "1ms", "--directory", directory.Path()};
    const std::vector<std::string> rows = LastPicture(RunToolOnTerminal(arguments, "", {12, 50}));
    ASSERT_EQ(rows.size(), 12U);
    EXPECT_THAT(rows[0], HasSubstr(directory.Path().substr(0, 20)));
    EXPECT_THAT(rows[2], testing::StartsWith("SERVER"));
    EXPECT_THAT(rows[10], testing::StartsWith("a_server_with_quite_a_long_name_107"));
    EXPECT_EQ(rows[11], "... 32 more lines");
    for (const std::string &row : rows) {
        EXPECT_LE(row.size(), 50U) << row;
    }
}

TEST_F(WatchTest, WindowThatIsLargeEnoughShowsEverything) {
    const ScratchDirectory directory;
    directory.AddFifo("srv");
    const std::vector<std::string> arguments = {"watch", "-c", "1", "--directory", directory.Path()};
    const std::vector<std::string> rows = LastPicture(RunToolOnTerminal(arguments, "", {4, 200}));
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_THAT(rows[3], testing::StartsWith("srv"));
    EXPECT_THAT(rows[3], testing::EndsWith("-")) << "the last letter is there";
    EXPECT_THAT(LastPicture(RunToolOnTerminal(arguments)), testing::SizeIs(4)) << "a window of unknown size";
}

} // namespace
} // namespace tarvo_test
