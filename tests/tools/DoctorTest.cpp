// tarvoctl doctor.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include "support/Sanitized.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using DoctorTest = ToolTest;

ToolResult Examine(const std::string &path, const std::vector<std::string> &more = {}) {
    return RunTool(Joined({"doctor", "--json", "--directory", path}, more));
}

constexpr int LOCKED_THREADS = 3;

// The level of the finding of that check whose text holds `part`; empty without one.
std::string LevelOf(const ToolResult &result, const std::string &check, const std::string &part) {
    const json report = result.Json().at(0);
    for (const json &finding : report["findings"]) {
        if (finding["check"] == check && finding["finding"].get<std::string>().find(part) != std::string::npos) {
            return finding["level"];
        }
    }
    return "";
}

TEST_F(DoctorTest, SoundDirectoryHasNoErrors) {
    const ScratchDirectory directory;
    const ToolResult result = Examine(directory.Path());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(LevelOf(result, "directory", "mode 2770"), "ok");
    EXPECT_EQ(LevelOf(result, "files", "0 FIFOs"), "ok");
    EXPECT_NE(LevelOf(result, "space", "files free"), "");
    for (const char *check : {"pipes", "descriptors", "threads", "real-time", "labels", "log"}) {
        EXPECT_NE(LevelOf(result, check, ""), "") << check;
    }
}

TEST_F(DoctorTest, TextHasALineForEachFindingAndOneForItsRemedy) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    directory.AddFifo("stale");
    const ToolResult result = RunTool({"doctor", "--directory", directory.Path()});
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.out, HasSubstr("ok       directory    " + directory.Path() + ": mode 2770, group "));
    EXPECT_THAT(result.out, HasSubstr("warning  files        1 of 1 FIFOs are held by nobody\n"
                                      "                      -> tarvoctl clean\n"));
}

TEST_F(DoctorTest, ColoursAreForTerminals) {
    const ScratchDirectory directory;
    const std::vector<std::string> arguments = {"doctor", "--directory", directory.Path()};
    EXPECT_THAT(RunToolOnTerminal(arguments), HasSubstr("\033[32mok\033[0m       directory"));
    EXPECT_THAT(RunTool(arguments).out, Not(HasSubstr("\033[")));
}

TEST_F(DoctorTest, EveryComplaintHasARemedy) {
    const ScratchDirectory directory(0777);
    directory.AddFifo("stale");
    directory.AddFile("text");
    const json report = Examine(directory.Path()).Json().at(0);
    EXPECT_GE(report["findings"].size(), 8U);
    for (const json &finding : report["findings"]) {
        EXPECT_EQ(finding["level"] == "ok", finding["remedy"].is_null()) << finding;
    }
}

TEST_F(DoctorTest, MissingDirectoryIsAnError) {
    const ToolResult result = Examine("/dev/shm/no/such/directory");
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.Json().at(0)["worst"], "error");
    const ToolResult text = RunTool({"doctor", "--directory", "/dev/shm/no/such/directory"});
    EXPECT_EQ(text.status, 5);
    EXPECT_THAT(text.out, HasSubstr("error    directory"));
    EXPECT_THAT(text.out, HasSubstr("-> as root: tarvoctl init"));
}

TEST_F(DoctorTest, DirectoryOpenToAllIsAWarning) {
    const ScratchDirectory directory(0777);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "directory", "every user may remove"), "warning");
    EXPECT_EQ(Examine(directory.Path()).status, 0);
    EXPECT_EQ(Examine(directory.Path(), {"--strict"}).status, 5);
}

TEST_F(DoctorTest, MissingSetGroupBitIsAWarning) {
    const ScratchDirectory directory(0770);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "directory", "without the set-group-id bit"), "warning");
}

TEST_F(DoctorTest, DevelopmentDirectoryIsANote) {
    const ScratchDirectory directory(01777);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "directory", "as suits development"), "note");
}

TEST_F(DoctorTest, FilesThatDoNotBelongAreNamed) {
    TARVO_SKIP_IN_PID_NAMESPACE();
    const ScratchDirectory directory;
    directory.AddFifo("stale");
    const std::string open = directory.AddFifo("open");
    chmod(open.c_str(), 0666);
    const std::string text = directory.AddFile("text");
    const ToolResult result = Examine(directory.Path());
    EXPECT_EQ(LevelOf(result, "files", "2 of 2 FIFOs are held by nobody"), "warning");
    EXPECT_EQ(LevelOf(result, "files", open + " has mode 0666"), "warning");
    EXPECT_EQ(LevelOf(result, "files", text + " is no FIFO"), "note");
}

// A process that holds a FIFO of the directory, after `prepare` has set its signals.
class HoldingProcess {
public:
    HoldingProcess(const std::string &path, void (*prepare)())
        : process_([&](Channel &parent) {
              prepare();
              const Opened held(path, O_RDONLY);
              parent.Signal();
              return parent.Await() ? 0 : 1;
          }) {
        EXPECT_TRUE(process_.Await());
    }
    ~HoldingProcess() {
        kill(process_.Pid(), SIGCONT);
        process_.Signal();
        EXPECT_EQ(process_.Wait(), 0);
    }
    HoldingProcess(const HoldingProcess &) = delete;
    HoldingProcess &operator=(const HoldingProcess &) = delete;
    pid_t Pid() const { return process_.Pid(); }
    std::string Part() const { return "process " + std::to_string(process_.Pid()) + " ("; }

private:
    ChildProcess process_;
};

TEST_F(DoctorTest, ProcessThatSigpipeWouldEndIsNamed) {
    if (EMULATED) {
        GTEST_SKIP() << "the emulator catches every signal of its program, and the kernel tells of no other";
    }
    const ScratchDirectory directory;
    const std::string path = directory.AddFifo("srv");
    {
        const HoldingProcess careless(path, [] { std::signal(SIGPIPE, SIG_DFL); });
        EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", careless.Part()), "warning");
    }
    const HoldingProcess careful(path, [] { std::signal(SIGPIPE, SIG_IGN); });
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", "does not ignore SIGPIPE"), "");
}

// On the same file system, as what else is in shared memory is.
TEST_F(DoctorTest, ProcessWithAFifoOfAnotherDirectoryIsNotItsConcern) {
    const ScratchDirectory directory;
    const ScratchDirectory another;
    const std::string path = another.AddFifo("srv");
    const HoldingProcess careless(path, [] { std::signal(SIGPIPE, SIG_DFL); });
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", careless.Part()), "");
}

void HandleSigpipe() {
    std::signal(SIGPIPE, [](int) {});
}

void BlockSigpipe() {
    std::signal(SIGPIPE, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// The library's threads are not of its own making: what only the first thread blocks saves none of them.
void BlockSigpipeTooLate() {
    std::signal(SIGPIPE, SIG_DFL);
    std::thread([] { pause(); }).detach();
    BlockSigpipe();
}

TEST_F(DoctorTest, SigpipeIsHarmlessWhereItIsHandledOrNoThreadTakesIt) {
    if (EMULATED) {
        GTEST_SKIP() << "the emulator catches every signal of its program, and the kernel tells of no other";
    }
    const ScratchDirectory directory;
    const std::string path = directory.AddFifo("srv");
    for (void (*harmless)() : {HandleSigpipe, BlockSigpipe}) {
        const HoldingProcess process(path, harmless);
        EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", process.Part()), "");
    }
    const HoldingProcess process(path, BlockSigpipeTooLate);
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", process.Part() + "unit"), "");
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", "does not ignore SIGPIPE"), "warning");
}

// As long as the process lives, and without a lock that a child could inherit.
void StartThreads() {
    for (int i = 0; i < LOCKED_THREADS; ++i) {
        std::thread([] { pause(); }).detach();
    }
}

TEST_F(DoctorTest, ProcessWithStacksLockedWholeIsNamed) {
    if (SLOW) {
        GTEST_SKIP() << "sanitizers lock no memory, and the emulator's own stacks are not the program's";
    }
    if (mlockall(MCL_FUTURE | MCL_ONFAULT) != 0) {
        GTEST_SKIP() << "this user may not lock memory";
    }
    munlockall();
    const ScratchDirectory directory;
    const std::string path = directory.AddFifo("srv");
    {
        const HoldingProcess process(path, [] {
            mlockall(MCL_FUTURE);
            StartThreads();
        });
        EXPECT_EQ(LevelOf(Examine(directory.Path()), "memory", process.Part()), "warning");
        EXPECT_EQ(LevelOf(Examine(directory.Path()), "memory", "the stacks of " + std::to_string(LOCKED_THREADS)),
                  "warning");
    }
    const HoldingProcess frugal(path, [] {
        mlockall(MCL_FUTURE | MCL_ONFAULT);
        StartThreads();
    });
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "memory", ""), "");
}

TEST_F(DoctorTest, StoppedProcessIsNamed) {
    const ScratchDirectory directory;
    const HoldingProcess process(directory.AddFifo("srv"), HandleSigpipe);
    ASSERT_EQ(kill(process.Pid(), SIGSTOP), 0);
    ASSERT_EQ(waitpid(process.Pid(), nullptr, WUNTRACED), process.Pid());
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", process.Part()), "warning");
    EXPECT_THAT(RunTool({"doctor", "--directory", directory.Path()}).out,
                HasSubstr("-> kill -CONT " + std::to_string(process.Pid())));
}

TEST_F(DoctorTest, NobodyIsSentIntoTheGroupRoot) {
    TARVO_SKIP_UNLESS_ROOT();
    for (const mode_t mode : {0770U, 02770U, 0700U}) {
        const ScratchDirectory directory(mode);
        ASSERT_EQ(chown(directory.Path().c_str(), 0, 0), 0);
        ASSERT_EQ(chmod(directory.Path().c_str(), mode), 0);
        EXPECT_THAT(RunTool({"doctor", "--directory", directory.Path()}).out, Not(HasSubstr("--group root")));
        ExpectRun(RunAsOtherUser([&] {
            const ToolResult result = RunTool({"doctor", "--directory", directory.Path()});
            EXPECT_EQ(result.status, 5);
            EXPECT_THAT(result.out, HasSubstr("usermod -aG GROUP "));
            EXPECT_THAT(result.out, Not(HasSubstr("-aG root")));
            return 0;
        }));
    }
}

TEST_F(DoctorTest, GroupThatHelpsIsNamed) {
    TARVO_SKIP_UNLESS_ROOT();
    const ScratchDirectory directory;
    ASSERT_EQ(chown(directory.Path().c_str(), 0, 12), 0); // man: any group but root
    ASSERT_EQ(chmod(directory.Path().c_str(), 02770), 0);
    ExpectRun(RunAsOtherUser([&] {
        const ToolResult result = RunTool({"doctor", "--directory", directory.Path()});
        EXPECT_THAT(result.out, HasSubstr("-> as root: usermod -aG man "));
        return 0;
    }));
}

TEST_F(DoctorTest, ServerOnARemovedFifoIsNamed) {
    const ScratchDirectory directory;
    const Opened held(directory.AddFifo("srv"), O_RDONLY);
    unlink((directory.Path() + "srv").c_str());
    EXPECT_EQ(LevelOf(Examine(directory.Path()), "processes", "reads the FIFO 'srv', which was replaced or removed"),
              "warning");
}

TEST_F(DoctorTest, WrongUsageIsRefused) { EXPECT_EQ(RunTool({"doctor", "who"}).status, 2); }

} // namespace
} // namespace tarvo_test
