#ifndef TARVO_TOOLS_TOOLTEST_H
#define TARVO_TOOLS_TOOLTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "support/FifoWatch.h"
#include "support/Names.h"
#include "tools/ToolProcess.h"

namespace tarvo_test {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// Base of the tests of the command line tool: no FIFO file with a name of the test is left after it.
class ToolTest : public testing::Test {
protected:
    void SetUp() override { FifoDirectory(); }
    void TearDown() override {
        AwaitFifoDirectory("no file of the test is left", [] { return OwnFifoFiles().empty(); });
    }
};

// A run of `tarvoctl serve`, up and running.
class ToolServer {
public:
    explicit ToolServer(const std::string &name, const std::vector<std::string> &more = {})
        : process_(Arguments(name, more)) {
        process_.AwaitErr("serving as '" + name + "'");
    }
    ToolProcess *operator->() { return &process_; }
    // Ends it as Ctrl-C does.
    ToolResult Interrupt() {
        process_.Signal(SIGINT);
        return process_.Wait();
    }

private:
    static std::vector<std::string> Arguments(const std::string &name, const std::vector<std::string> &more) {
        std::vector<std::string> arguments = {"serve", name};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }

    ToolProcess process_;
};

} // namespace tarvo_test

#endif // TARVO_TOOLS_TOOLTEST_H
