#include "shared/CommandLine.h"

#include <CLI/CLI.hpp>

#include "shared/Duration.h"

namespace tarvoctl {

Option &Option::Required() {
    option_->required();
    return *this;
}

Option &Option::Type(const std::string &name) {
    option_->type_name(name);
    return *this;
}

Option &Option::ShowDefault() {
    option_->capture_default_str();
    return *this;
}

Option &Option::OneOf(const std::vector<std::string> &values) {
    option_->check(CLI::IsMember(values));
    return *this;
}

Option &Option::Positive() {
    option_->check(CLI::PositiveNumber);
    return *this;
}

Option &Option::Range(uint64_t least, uint64_t most) {
    option_->check(CLI::Range(least, most));
    return *this;
}

Option &Option::Split(char delimiter) {
    option_->delimiter(delimiter);
    return *this;
}

Option &Option::Excludes(const Option &other) {
    option_->excludes(other.option_);
    return *this;
}

template <class Value>
Option CommandLine::Add(const std::string &names, Value &value, const std::string &text) {
    return Option(app_->add_option(names, value, text));
}

template Option CommandLine::Add(const std::string &names, std::string &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, std::optional<std::string> &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, uint32_t &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, uint64_t &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, double &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, Duration &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, std::vector<uint32_t> &value, const std::string &text);

Option CommandLine::Flag(const std::string &names, bool &value, const std::string &text) {
    return Option(app_->add_flag(names, value, text));
}

CommandLine CommandLine::Alternatives(const std::string &name, const std::string &text) {
    CLI::Option_group *const group = app_->add_option_group(name, text);
    group->require_option(0, 1);
    return CommandLine(group);
}

CommandLine CommandLine::Subcommand(const std::string &name, const std::string &text, const std::string &footer) {
    CLI::App *const sub = app_->add_subcommand(name, text);
    sub->footer(footer);
    return CommandLine(sub);
}

CommandLine CommandLine::HiddenSubcommand(const std::string &name) {
    return CommandLine(app_->add_subcommand(name, "")->group(""));
}

void CommandLine::WhenNamed(const std::function<void()> &action) { app_->callback(action); }

Parsed ParseCommandLine(int argc, char **argv, const ProgramTexts &texts,
                        const std::function<void(CommandLine &)> &declare) {
    CLI::App app(texts.purpose, texts.name);
    app.set_version_flag("--version", texts.version);
    app.require_subcommand(1);
    app.footer(texts.footer);
    CommandLine line(&app);
    declare(line);
    try {
        app.parse(argc, argv);
        return Parsed::RUN;
    } catch (const CLI::ParseError &error) {
        // Codes of its own, above 100; 0 is that of help and of the version.
        return app.exit(error) == 0 ? Parsed::DONE : Parsed::WRONG;
    }
}

} // namespace tarvoctl
