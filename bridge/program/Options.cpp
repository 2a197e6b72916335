#include "program/Options.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <net/if.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>

#include "api/tarvo_check.h"
#include "core/Report.h"

namespace tarvo_bridge {
namespace {

constexpr char AS[] = " as ";

constexpr char FOOTER[] =
    "RULE is SERVICE, SERVICE@MACHINE, or either with ' as NAME' behind it.\n\n"
    "A file for --config is TOML and holds the same options without the dashes, as in\n"
    "  export = [\"radar\", \"gps\"]\n"
    "  import = [\"camera@rear as camera2\"]\n"
    "  interface = \"eth0\"\n"
    "What is unknown or does not fit is an error. The command line goes before the file.\n\n"
    "Exit status: 0 ended by a signal, or --check found nothing wrong; 1 the bridge cannot work here; 2 the options\n"
    "or the file are wrong.";

// What a file gives as numbers; all else is strings.
constexpr std::array<std::string_view, 4> NUMBERS{"domain", "lease", "sessions", "window"};

std::string MachineName() {
    std::array<char, 65> name{};
    gethostname(name.data(), name.size() - 1);
    const std::string whole = name.data();
    return whole.substr(0, whole.find('.'));
}

// `--import RULE --as NAME` becomes one argument.
bool JoinNames(std::vector<std::string> &words) {
    for (std::size_t i = 0; i < words.size(); ++i) {
        const bool apart = words[i] == "--as";
        if (!apart && words[i].rfind("--as=", 0) != 0) {
            continue;
        }
        const bool follows =
            i >= 1 && (words[i - 1].rfind("--import=", 0) == 0 || (i >= 2 && words[i - 2] == "--import"));
        if (!follows || (apart && i + 1 >= words.size())) {
            Say(Level::ERROR, "--as NAME stands directly behind the --import that it is for");
            return false;
        }
        words[i - 1] += AS + (apart ? words[i + 1] : words[i].substr(5));
        const auto from = words.begin() + static_cast<std::ptrdiff_t>(i);
        words.erase(from, from + (apart ? 2 : 1));
        --i;
    }
    return true;
}

bool IsNumber(const std::string &name) { return std::find(NUMBERS.begin(), NUMBERS.end(), name) != NUMBERS.end(); }

bool IsList(const CLI::Option &option) { return option.get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll; }

// What is wrong where a key of the file is no option, or has a value of another type.
std::string Misfit(const std::string &name, const CLI::Option *option) {
    if (option == nullptr) {
        return fmt::format("'{}' is no option of a file", name);
    }
    if (IsNumber(name)) {
        return fmt::format("'{}' takes a whole number", name);
    }
    return IsList(*option) ? fmt::format("'{}' takes a string or an array of strings", name)
                           : fmt::format("'{}' takes a string", name);
}

// Reads the file for CLI11, which would take much for TOML that is none, and any type for any other.
class TomlFile : public CLI::Config {
public:
    explicit TomlFile(const CLI::App &declared) : app(declared) {}

    std::string to_config(const CLI::App *, bool, bool, std::string) const override { return ""; }

    std::vector<CLI::ConfigItem> from_config(std::istream &file) const override {
        std::vector<CLI::ConfigItem> found;
        try {
            for (const auto &[key, value] : toml::parse(file)) {
                CLI::ConfigItem item{{}, std::string(key.str()), InputsOf(key, value)};
                if (!item.inputs.empty()) { // else it is as if it were not there
                    found.push_back(std::move(item));
                }
            }
        } catch (const toml::parse_error &error) {
            throw At(error.source(), error.description());
        }
        return found;
    }

private:
    std::vector<std::string> InputsOf(const toml::key &key, const toml::node &value) const {
        const std::string name(key.str());
        const CLI::Option *const option = app.get_option_no_throw("--" + name);
        if (option == nullptr || !option->get_configurable()) {
            throw At(key.source(), Misfit(name, nullptr));
        }
        std::vector<std::string> inputs;
        const auto add = [&](const toml::node &one) {
            const toml::value<int64_t> *const number = IsNumber(name) ? one.as_integer() : nullptr;
            const toml::value<std::string> *const text = IsNumber(name) ? nullptr : one.as_string();
            if (number == nullptr && (text == nullptr || text->get().find('\0') != std::string::npos)) {
                throw At(one.source(), Misfit(name, option));
            }
            inputs.push_back(number != nullptr ? std::to_string(number->get()) : text->get());
        };
        if (IsList(*option) && value.is_array()) {
            std::for_each(value.as_array()->begin(), value.as_array()->end(), add);
        } else {
            add(value);
        }
        return inputs;
    }

    CLI::ConfigError At(const toml::source_region &place, std::string_view fault) const {
        return CLI::ConfigError(
            fmt::format("{}:{}: {}", app.get_config_ptr()->as<std::string>(), place.begin.line, fault));
    }

    const CLI::App &app;
};

bool IsLocalName(const std::string &name) {
    const auto isUnfit = [](unsigned char letter) { return letter == '/' || letter < 0x20 || letter == 0x7f; };
    return !name.empty() && name.size() <= MAX_NAME_LENGTH && std::none_of(name.begin(), name.end(), isUnfit) &&
           !BlackListCheck(name.c_str());
}

// Behind it comes a dot, and two in a row are refused in names.
bool IsMachineName(const std::string &name) {
    return IsLocalName(name) && name.size() <= MAX_MACHINE_LENGTH && name.back() != '.';
}

constexpr char NAME_RULE[] =
    "1 to 100 characters, none of | ; > < ` & ( ) $ /, no control character and no two dots in a row";

void CheckMachine(const std::string &machine, std::vector<std::string> &faults) {
    if (!IsMachineName(machine)) {
        faults.push_back(fmt::format("'{}' is no name for a machine: at most 40 characters, no dot at its end, and {}",
                                     machine, NAME_RULE));
    }
}

std::set<std::string> CheckExports(const Options &options, std::vector<std::string> &faults) {
    std::set<std::string> names;
    for (const std::string &name : options.plan.exports) {
        if (!IsLocalName(name)) {
            faults.push_back(fmt::format("'{}' cannot be exported: a name has {}", name, NAME_RULE));
        } else if (!names.insert(name).second) {
            faults.push_back(fmt::format("'{}' is exported twice", name));
        }
    }
    return names;
}

void CheckImport(const ImportRule &rule, std::vector<std::string> &faults) {
    for (const std::string &name : {rule.service, rule.local}) {
        if (!IsLocalName(name)) {
            faults.push_back(fmt::format("'{}' cannot be imported: a name has {}", name, NAME_RULE));
        }
    }
    if (!rule.machine.empty()) {
        CheckMachine(rule.machine, faults);
    }
}

// What others can be told of.
void CheckCounts(const Plan &plan, std::vector<std::string> &faults) {
    const std::size_t all = plan.exports.size() + plan.imports.size();
    if (plan.exports.size() > MAX_SERVICES) {
        faults.push_back(
            fmt::format("{} names are exported: a bridge exports at most {}", plan.exports.size(), MAX_SERVICES));
    } else if (all > MAX_NAMES) {
        faults.push_back(fmt::format("{} names are exported and imported: a bridge has at most {}", all, MAX_NAMES));
    } else if (all == 0) {
        faults.emplace_back("there is nothing to do: neither an export nor an import is given");
    }
}

void CheckNames(const Options &options, std::vector<std::string> &faults) {
    CheckMachine(options.plan.machine, faults);
    const std::set<std::string> exported = CheckExports(options, faults);
    std::set<std::string> imported;
    for (const ImportRule &rule : options.plan.imports) {
        CheckImport(rule, faults);
        if (exported.count(rule.local) != 0) {
            faults.push_back(
                fmt::format("'{}' is exported and imported: a bridge does not export what it imports", rule.local));
        }
        if (!imported.insert(rule.local).second) {
            faults.push_back(fmt::format("'{}' is imported twice; --as gives one of them another name", rule.local));
        }
    }
    CheckCounts(options.plan, faults);
}

bool IsHostName(const std::string &name) {
    constexpr char DIGITS[] = "0123456789.";
    constexpr char LETTERS[] = "0123456789.-abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    const std::string dotted = "." + name + ".";
    const auto has = [&dotted](const char *part) { return dotted.find(part) != std::string::npos; };
    return name.size() <= 253 && !has("..") && !has(".-") && !has("-.") &&
           name.find_first_not_of(LETTERS) == std::string::npos && name.find_first_not_of(DIGITS) != std::string::npos;
}

void CheckPeer(const std::string &peer, std::vector<std::string> &faults) {
    in6_addr address{};
    if (inet_pton(AF_INET, peer.c_str(), &address) != 1 && inet_pton(AF_INET6, peer.c_str(), &address) != 1 &&
        !IsHostName(peer)) {
        faults.push_back(fmt::format("'{}' is no peer: an IPv4 or IPv6 address or the name of a host", peer));
    }
}

bool IsReadable(const std::string &path) {
    std::error_code ignored;
    return access(path.c_str(), R_OK) == 0 && !std::filesystem::is_directory(path, ignored);
}

void CheckPlaces(const Options &options, std::vector<std::string> &faults) {
    for (const std::string &name : options.network.interfaces) {
        if (if_nametoindex(name.c_str()) == 0) {
            faults.push_back(fmt::format("there is no network interface '{}'", name));
        }
    }
    for (const std::string &peer : options.network.peers) {
        CheckPeer(peer, faults);
    }
    if (!options.network.securityFolder.empty()) {
        for (const SecurityFile &file : SecurityFiles()) {
            const std::string path = options.network.securityFolder + "/" + file.name;
            if (!IsReadable(path)) {
                faults.push_back(fmt::format("'{}' cannot be read: {}", path, file.purpose));
            }
        }
    }
    if (!options.network.ddsConfig.empty() && !IsReadable(options.network.ddsConfig)) {
        faults.push_back(fmt::format("'{}' cannot be read", options.network.ddsConfig));
    }
}

void Declare(CLI::App &app, Options &options, std::vector<std::string> &imports) {
    app.set_version_flag("--version", std::string("tarvo-bridge ") + TARVO_VERSION);
    app.set_config("--config", "", "Read options from FILE too")->type_name("FILE");
    app.config_formatter(std::make_shared<TomlFile>(app));
    app.add_option("--export", options.plan.exports, "A server of this machine that others may reach")
        ->type_name("NAME")
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("--import", imports, "Serve RULE's name here, carried by a machine that exports it")
        ->type_name("RULE")
        ->take_all()
        ->allow_extra_args(false);
    // For the help only: see JoinNames().
    app.add_option("--as", "The name that the --import before it gets here")->type_name("NAME")->configurable(false);
    app.add_option("--machine", options.plan.machine, "What others call this machine")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--interface", options.network.interfaces,
                   "Use this network interface, and no other than those named")
        ->type_name("NAME")
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("--peer", options.network.peers, "Ask at this address too, where multicast does not get")
        ->type_name("ADDRESS")
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("--domain", options.network.domain, "DDS domain")->check(CLI::Range(0, 230))->capture_default_str();
    app.add_option("--tag", options.network.tag, "Only bridges of the same tag hear each other")->capture_default_str();
    app.add_option("--lease", options.network.leaseMs, "Milliseconds of silence after which a machine is gone")
        ->check(CLI::Range(300, 3600000))
        ->capture_default_str();
    app.add_option("--window", options.plan.limits.window, "Messages under way for each client and direction")
        ->check(CLI::Range(1U, Session::LARGEST_WINDOW))
        ->capture_default_str();
    app.add_option("--sessions", options.plan.limits.sessions, "Clients of and for one other bridge at a time")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    app.add_option("--security", options.network.securityFolder,
                   "Let in only who is vouched for by the files in FOLDER")
        ->type_name("FOLDER");
    app.add_option("--dds-config", options.network.ddsConfig, "Settings for the DDS itself, which go before these")
        ->type_name("FILE");
    app.add_option("--state-folder", options.stateFolder, "Where the bridges of this machine know of each other")
        ->type_name("FOLDER")
        ->capture_default_str();
    app.add_option("--log", options.log, "Tell so much: error, warning, notice, info")
        ->check(CLI::IsMember({"error", "warning", "notice", "info"}))
        ->capture_default_str();
    app.add_flag("--check", options.check, "Look whether the options are right, and end")->configurable(false);
    app.footer(FOOTER);
}

} // namespace

std::string ParseImport(const std::string &text, ImportRule &rule) {
    const std::size_t as = text.find(AS);
    const std::string remote = text.substr(0, as);
    const std::size_t at = remote.rfind('@');
    rule.service = remote.substr(0, at);
    rule.machine = at == std::string::npos ? "" : remote.substr(at + 1);
    rule.local = as == std::string::npos ? rule.service : text.substr(as + sizeof(AS) - 1);
    const bool wrong = rule.service.empty() || rule.local.empty() || (at != std::string::npos && rule.machine.empty());
    return wrong ? fmt::format("'{}' is no import: SERVICE, SERVICE@MACHINE, or either with ' as NAME' behind it", text)
                 : "";
}

std::vector<std::string> FaultsOf(const Options &options) {
    std::vector<std::string> faults;
    CheckNames(options, faults);
    CheckPlaces(options, faults);
    return faults;
}

Parsed ParseOptions(int argc, char **argv, Options &options) {
    CLI::App app("Makes servers of other machines reachable here, and of this machine there.", "tarvo-bridge");
    std::vector<std::string> imports;
    options.plan.machine = MachineName();
    Declare(app, options, imports);
    std::vector<std::string> words(argv + 1, argv + argc);
    if (!JoinNames(words)) {
        return Parsed::WRONG;
    }
    try {
        std::reverse(words.begin(), words.end()); // as CLI11 takes them
        app.parse(words);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? Parsed::DONE : Parsed::WRONG;
    }
    options.plan.limits.leaseMs = options.network.leaseMs;
    bool right = true;
    for (const std::string &text : imports) {
        ImportRule rule;
        const std::string fault = ParseImport(text, rule);
        if (!fault.empty()) {
            Say(Level::ERROR, "{}", fault);
            right = false;
        }
        options.plan.imports.push_back(rule);
    }
    for (const std::string &fault : right ? FaultsOf(options) : std::vector<std::string>()) {
        Say(Level::ERROR, "{}", fault);
        right = false;
    }
    return right ? Parsed::RUN : Parsed::WRONG;
}

} // namespace tarvo_bridge
