#ifndef TARVO_TOOLS_TOOLTEST_H
#define TARVO_TOOLS_TOOLTEST_H

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "support/FifoWatch.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/Unprivileged.h"
#include "tools/Scratch.h"
#include "tools/ToolProcess.h"

namespace tarvo_test {

using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::Not;

// Base of the tests of the command line tool: no FIFO file with a name of the test is left after it.
class ToolTest : public testing::Test {
protected:
    void SetUp() override { FifoDirectory(); }
    void TearDown() override {
        AwaitFifoDirectory("no file of the test is left", [] { return OwnFifoFiles().empty(); });
    }

    // For the server of the test.
    const std::string name = UniqueName("srv");
};

// A run of `tarvoctl serve`, up and running. One that still runs at its end is interrupted, and fails the test when it
// does not end well.
class ToolServer {
public:
    explicit ToolServer(const std::string &name, const std::vector<std::string> &more = {})
        : process_(Joined({"serve", name}, more)) {
        process_.AwaitErr("serving as '" + name + "'");
    }
    ~ToolServer() {
        if (process_.Pid() > 0 && std::uncaught_exceptions() == 0) {
            EXPECT_NO_THROW(EXPECT_EQ(process_.Interrupt().status, 0));
        }
    }
    ToolServer(const ToolServer &) = delete;
    ToolServer &operator=(const ToolServer &) = delete;

    ToolProcess *operator->() { return &process_; }
    ToolResult Interrupt() { return process_.Interrupt(); }

private:
    ToolProcess process_;
};

// The result of a part of a test that the machine does not allow.
constexpr int SKIPPED = 77;

// As a user without rights.
inline int RunAsOtherUser(const std::function<int()> &body) {
    return RunAs(65534, 65534, [&body] {
        const bool closed = RunTool({"--version"}).status == 127; // the build tree, to this user
        return closed ? SKIPPED : body();
    });
}

// Whether there may be processes that this one does not see.
inline bool IsInPidNamespace() {
    constexpr ino_t FIRST = 0xEFFFFFFC; // that of the machine, in each kernel since pid namespaces have numbers
    struct stat status {};
    return stat("/proc/self/ns/pid", &status) == 0 && status.st_ino != FIRST;
}

// On a machine that has no FIFO directory yet.
inline int RunWithoutFifoDirectory(const std::function<int()> &body) {
    return ChildProcess([&body](Channel &) { return LoseFifoDirectory() ? body() : SKIPPED; }).Wait();
}

// The result of one of those two.
inline void ExpectRun(int status) {
    if (status == SKIPPED) {
        GTEST_SKIP() << "no right to mount a file system, or no other user may run the tool where it was built";
    }
    EXPECT_EQ(status, 0);
}

} // namespace tarvo_test

// In a test of what the tool says of files that nobody holds: where it does not see all processes, it says that
// instead.
#define TARVO_SKIP_IN_PID_NAMESPACE()                                                                                  \
    do {                                                                                                               \
        if (tarvo_test::IsInPidNamespace()) {                                                                          \
            GTEST_SKIP() << "in a container the tool does not see all processes, and cannot tell what nobody holds";   \
        }                                                                                                              \
    } while (false)

#endif // TARVO_TOOLS_TOOLTEST_H
