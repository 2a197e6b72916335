#include "shared/CommandLine.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <type_traits>

#include "shared/Duration.h"
#include "shared/Output.h"
#include "shared/Verbs.h"

namespace tarvoctl {
namespace {

constexpr char TIME_TYPE[] = "TIME";
constexpr char TIME_WORDS[] = "a number with us, ms, s or min, such as 250ms or 1.5s (a number alone is milliseconds), "
                              "and a day at most";

// Complains of the values for which `suits` is false: each "is not" what `words` say. `shown` goes into the help.
CLI::Validator Check(std::function<bool(const std::string &)> suits, const std::string &words,
                     const std::string &shown = "") {
    return {[suits = std::move(suits), words](std::string &value) {
                return suits(value) ? std::string() : fmt::format("'{}' is not {}", value, words);
            },
            shown};
}

bool IsWhole(const std::string &text, uint64_t least, uint64_t most) {
    uint64_t number = 0;
    const char *const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return parsed.ec == std::errc() && parsed.ptr == end && number >= least && number <= most;
}

bool IsAboveZero(const std::string &text) {
    double number = 0;
    return CLI::detail::lexical_cast(text, number) && number > 0;
}

bool IsTime(const std::string &text) {
    Duration duration;
    return lexical_cast(text, duration);
}

// The help of what takes a TIME says what that is.
void ExplainTime(CLI::App &sub) {
    for (const CLI::Option *option : sub.get_options()) {
        if (option->get_type_name() == TIME_TYPE) {
            sub.footer(sub.get_footer() + "\nTIME is " + TIME_WORDS + ".");
            return;
        }
    }
}

// The subcommand that the first of `words` names; null when none.
const CLI::App *FindVerb(const CLI::App &app, const std::vector<std::string> &words) {
    const auto named =
        app.get_subcommands([&](const CLI::App *sub) { return !words.empty() && sub->get_name() == words.front(); });
    return named.empty() ? nullptr : named.front();
}

std::vector<std::string> VerbsOf(const CLI::App &app) {
    std::vector<std::string> verbs;
    for (const CLI::App *sub : app.get_subcommands([](const CLI::App *one) { return !one->get_group().empty(); })) {
        verbs.push_back(sub->get_name());
    }
    return verbs;
}

// Whether the first word is a subcommand, or an option; complains otherwise.
bool VerbIsKnown(const CLI::App &app, const std::vector<std::string> &words) {
    if (words.empty() || words.front().rfind('-', 0) == 0 || FindVerb(app, words) != nullptr) {
        return true;
    }
    std::string meant;
    for (const std::string &verb : Suggestions(words.front(), VerbsOf(app))) {
        meant += (meant.empty() ? "; did you mean '" : " or '") + verb + "'";
    }
    Diagnose("there is no subcommand '{}'{}", words.front(), meant.empty() ? "; see 'tarvoctl help'" : meant + "?");
    return false;
}

} // namespace

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
    option_->check(Check(IsAboveZero, "a number above 0"));
    return *this;
}

Option &Option::AtLeastOne() {
    option_->check(
        Check([](const std::string &text) { return IsWhole(text, 1, UINT64_MAX); }, "a whole number of 1 or more"));
    return *this;
}

Option &Option::Range(uint64_t least, uint64_t most) {
    const std::string range = fmt::format("{} to {}", least, most);
    option_->check(Check([least, most](const std::string &text) { return IsWhole(text, least, most); },
                         "a whole number from " + range, range));
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
    CLI::Option *const option = app_->add_option(names, value, text);
    if constexpr (std::is_same_v<Value, Duration> || std::is_same_v<Value, std::optional<Duration>>) {
        option->type_name(TIME_TYPE)->check(Check(IsTime, TIME_WORDS));
    }
    return Option(option);
}

template Option CommandLine::Add(const std::string &names, std::string &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, std::optional<std::string> &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, uint32_t &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, uint64_t &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, double &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, Duration &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, std::optional<Duration> &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, std::vector<uint32_t> &value, const std::string &text);
template Option CommandLine::Add(const std::string &names, std::vector<std::string> &value, const std::string &text);

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

void CommandLine::Note(const std::string &arguments, const std::string &text) {
    app_->footer(fmt::format("{}\n  {:<26}  {}\n\n{}", "Arguments:", arguments, text, app_->get_footer()));
}

void CommandLine::LeaveRest() { app_->prefix_command(); }

void CommandLine::WhenNamed(const std::function<void()> &action) { app_->callback(action); }

Parsed ParseCommandLine(int argc, char **argv, const ProgramTexts &texts,
                        const std::function<void(CommandLine &)> &declare, std::vector<std::string> &rest) {
    CLI::App app(texts.purpose, texts.name);
    app.set_version_flag("--version", texts.version);
    app.require_subcommand(1);
    CommandLine line(&app);
    declare(line);
    for (CLI::App *sub : app.get_subcommands([](const CLI::App *) { return true; })) {
        ExplainTime(*sub);
    }
    app.footer(fmt::format("{}\nTIME, in all of them, is {}.", texts.footer, TIME_WORDS));
    std::vector<std::string> words(argv + 1, argv + argc);
    TurnHelpIntoOption(words);
    if (!VerbIsKnown(app, words)) {
        return Parsed::WRONG;
    }
    const CLI::App *const verb = FindVerb(app, words);
    if (verb != nullptr && verb->get_prefix_command()) {
        rest = TakeRest(words);
    }
    try {
        std::reverse(words.begin(), words.end()); // as CLI11 takes them
        app.parse(words);
        if (verb != nullptr && !verb->remaining().empty()) {
            throw CLI::ExtrasError(verb->remaining()); // CLI11 lets them pass where a rest is left
        }
        return Parsed::RUN;
    } catch (const CLI::ParseError &error) {
        // Codes of its own, above 100; 0 is that of help and of the version.
        return app.exit(error) == 0 ? Parsed::DONE : Parsed::WRONG;
    }
}

} // namespace tarvoctl
