// What the subcommands ask of the command line. CLI11 does the work, behind this: reading its headers takes the
// compiler longer than most of these sources.
#ifndef TARVO_TARVOCTL_COMMANDLINE_H
#define TARVO_TARVOCTL_COMMANDLINE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace tarvoctl {

// One option or argument that takes a value. Each function adds to what is known of it.
class Option {
public:
    explicit Option(CLI::Option *option) : option_(option) {}
    Option &Required();
    // What stands for its value in the help.
    Option &Type(const std::string &name);
    Option &ShowDefault();
    Option &OneOf(const std::vector<std::string> &values);
    // A number above 0, with a fraction or without.
    Option &Positive();
    // A whole number.
    Option &AtLeastOne();
    Option &Range(uint64_t least, uint64_t most);
    // Several values at once, with this between them.
    Option &Split(char delimiter);
    Option &Excludes(const Option &other);

private:
    CLI::Option *option_;
};

// The options of the program or of one subcommand.
class CommandLine {
public:
    explicit CommandLine(CLI::App *app) : app_(app) {}

    // For text, also optional or several, numbers, durations and lists of numbers.
    // A duration is shown as TIME, which the help then explains.
    template <class Value>
    Option Add(const std::string &names, Value &value, const std::string &text = "");
    Option Flag(const std::string &names, bool &value, const std::string &text = "");

    // Options of which at most one may be given.
    CommandLine Alternatives(const std::string &name, const std::string &text);
    CommandLine Subcommand(const std::string &name, const std::string &text, const std::string &footer);
    // One that the help does not show.
    CommandLine HiddenSubcommand(const std::string &name);
    // A line of the help about arguments that are not looked at.
    void Note(const std::string &arguments, const std::string &text);
    // What stands after its options belongs to the command that it runs, and is not looked at.
    void LeaveRest();
    // What is done when the subcommand was named and all of the command line makes sense.
    void WhenNamed(const std::function<void()> &action);

private:
    CLI::App *app_;
};

struct ProgramTexts {
    std::string name;
    std::string purpose;
    std::string version;
    std::string footer;
};

// Whether the named subcommand is to run; or help or the version was printed; or what is wrong with the command line.
enum class Parsed { RUN, DONE, WRONG };

// Reads the command line of a program that has subcommands, which `declare` adds. `rest` gets what the named one
// leaves.
Parsed ParseCommandLine(int argc, char **argv, const ProgramTexts &texts,
                        const std::function<void(CommandLine &)> &declare, std::vector<std::string> &rest);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_COMMANDLINE_H
