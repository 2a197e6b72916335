#include "storm/CommandLine.h"

#include <CLI/CLI.hpp>

namespace storm {

CommandLine::CommandLine(const std::string &description) : app(std::make_unique<CLI::App>(description)) {}
CommandLine::~CommandLine() = default;

template <typename Value>
CommandLine &CommandLine::Option(const char *name, Value &value, const char *text) {
    CLI::Option *const option = app->add_option(name, value, text);
    if constexpr (!std::is_same_v<Value, std::string>) {
        option->capture_default_str();
    }
    return *this;
}

template CommandLine &CommandLine::Option(const char *, int &, const char *);
template CommandLine &CommandLine::Option(const char *, unsigned &, const char *);
template CommandLine &CommandLine::Option(const char *, uint64_t &, const char *);
template CommandLine &CommandLine::Option(const char *, double &, const char *);
template CommandLine &CommandLine::Option(const char *, std::string &, const char *);

CommandLine &CommandLine::Option(const char *name, unsigned &value, const char *text, unsigned lowest,
                                 unsigned highest) {
    app->add_option(name, value, text)->capture_default_str()->check(CLI::Range(lowest, highest));
    return *this;
}

CommandLine &CommandLine::Flag(const char *name, bool &value, const char *text) {
    app->add_flag(name, value, text);
    return *this;
}

std::optional<int> CommandLine::Parse(int argc, char **argv) {
    try {
        app->parse(argc, argv);
        return {};
    } catch (const CLI::ParseError &error) {
        return app->exit(error);
    }
}

} // namespace storm
