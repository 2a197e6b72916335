#ifndef TARVO_TOOLS_TOOLPROCESS_H
#define TARVO_TOOLS_TOOLPROCESS_H

#include <sys/types.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace tarvo_test {

// How a run of the tool ended.
struct ToolResult {
    int status = -1; // exit code, or 128 plus the signal
    std::string out;
    std::string err;

    // The lines of the answer, each a JSON value. Throws when one is not.
    std::vector<nlohmann::json> Json() const;
};

// The words of a command line, and more of them.
std::vector<std::string> Joined(std::vector<std::string> words, const std::vector<std::string> &more);

// A run of the command line tool.
// Owns: the process and its standard streams. Threads: one. Locks: none. Ends: kills the process if it still runs. All
// waits end after 60 s with an exception.
class ToolProcess {
public:
    // `input` is its standard input, which then ends.
    explicit ToolProcess(const std::vector<std::string> &arguments, const std::string &input = "");
    ~ToolProcess();
    ToolProcess(const ToolProcess &) = delete;
    ToolProcess &operator=(const ToolProcess &) = delete;

    pid_t Pid() const { return pid_; } // -1 once it has been waited for
    // Returns once standard output or standard error holds the text, so many times.
    void AwaitOut(const std::string &text, std::size_t times = 1);
    void AwaitErr(const std::string &text, std::size_t times = 1);
    void Signal(int signo) const;
    // Stops it and returns once the kernel says that it is stopped.
    void Freeze() const;
    ToolResult Wait();
    // Ends it as Ctrl-C does.
    ToolResult Interrupt();

private:
    void Await(const std::string &stream, const std::string &text, std::size_t times);
    bool ReadMore(); // false once both streams have ended

    pid_t pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    ToolResult result_;
};

ToolResult RunTool(const std::vector<std::string> &arguments, const std::string &input = "");

// The window of a terminal; of an unknown size where both are 0.
struct Window {
    unsigned short rows = 0;
    unsigned short columns = 0;
};

// What a run writes to a terminal of its own, standard error and the echo of what is typed included.
std::string RunToolOnTerminal(const std::vector<std::string> &arguments, const std::string &typed = "",
                              const Window &window = {});

} // namespace tarvo_test

#endif // TARVO_TOOLS_TOOLPROCESS_H
