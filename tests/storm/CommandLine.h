#ifndef TARVO_STORM_COMMANDLINE_H
#define TARVO_STORM_COMMANDLINE_H

#include <memory>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace storm {

// The options of one of these programs, and its --help. Compiling what is behind them takes four times as long as the
// rest of a program, so that it is done once.
class CommandLine {
public:
    explicit CommandLine(const std::string &description);
    ~CommandLine();
    CommandLine(const CommandLine &) = delete;
    CommandLine &operator=(const CommandLine &) = delete;

    // `value` holds the default. For int, unsigned, uint64_t, double and std::string.
    template <typename Value>
    CommandLine &Option(const char *name, Value &value, const char *text);
    CommandLine &Option(const char *name, unsigned &value, const char *text, unsigned lowest, unsigned highest);
    CommandLine &Flag(const char *name, bool &value, const char *text);

    // The status to exit with at once, after a word on why.
    std::optional<int> Parse(int argc, char **argv);

private:
    std::unique_ptr<CLI::App> app;
};

} // namespace storm

#endif // TARVO_STORM_COMMANDLINE_H
