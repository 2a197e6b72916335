// tarvoctl serve: a server for trying out clients.
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <set>

#include "api/EnvManager.h"
#include "serve/LoopServer.h"
#include "serve/Service.h"
#include "shared/Command.h"
#include "shared/Engine.h"
#include "shared/ExitCode.h"
#include "shared/Ids.h"
#include "shared/Inventory.h"
#include "shared/Output.h"
#include "shared/ServerName.h"

namespace tarvoctl {
namespace {

constexpr int SECOND_MS = 1000;
constexpr char NAME_RULE[] =
    "the name is refused: 1 to 100 characters, none of | ; > < ` & ( ) $ and no two dots in a row";

// Creating a server of a name in use takes it away from the one that has it.
bool NameIsFree(const Inventory &inventory, const std::string &name) {
    const Server *other = inventory.FindServer(name);
    if (other == nullptr || other->processes.empty()) {
        return true;
    }
    Diagnose("process {} serves as '{}' already; --replace takes the name from it", other->processes.front(), name);
    return false;
}

bool NamesAreFree(const ServeOptions &options) {
    const Inventory inventory = TakeInventory(EnvManager::FifoPrefix());
    return options.replace || std::all_of(options.names.begin(), options.names.end(),
                                          [&](const std::string &name) { return NameIsFree(inventory, name); });
}

// One name stays with the threads, which run the commands of one request after another for each client by themselves
// and know priorities. Several need the loop, since the other engine serves one name in a process.
bool IsOnLoop(const ServeOptions &options) {
    return options.engine.empty() ? options.names.size() > 1 : options.engine == ENGINE_LOOP;
}

bool EngineFits(const ServeOptions &options) {
    if (IsOnLoop(options)) {
        return LoopHasPriority(options.priority);
    }
    if (options.names.size() > 1) {
        Diagnose("the engine 'threads' serves one name in a process; 'loop' serves several");
        return false;
    }
    return true;
}

bool NamesFit(const ServeOptions &options) {
    std::set<std::string> seen;
    for (const std::string &name : options.names) {
        if (!seen.insert(name).second) {
            Diagnose("'{}' is named twice", name);
            return false;
        }
        // All are asked before the first is served.
        if (options.names.size() > 1 && !NameIsValid(name)) {
            Diagnose("'{}': {}", name, NAME_RULE);
            return false;
        }
    }
    return true;
}

int ExplainStart(int result, const std::string &name) {
    if (result == -EINVAL) {
        Diagnose("{}", NAME_RULE);
        return EXIT_USAGE;
    }
    if (result == -ENOENT) {
        Diagnose("{} is missing; 'tarvoctl init' makes it", EnvManager::FifoPrefix());
    } else {
        Diagnose("cannot serve as '{}': {}", name, std::strerror(-result));
    }
    return EXIT_FAILED;
}

std::unique_ptr<Responder> MakeResponder(const ServeOptions &options, const Interrupt &interrupt) {
    if (!options.exec.empty()) {
        return MakeExec(options.names.front(), options.exec, options.execTimeout, interrupt.Fd());
    }
    return options.count ? MakeSink() : MakeEcho();
}

// Returns when the run is to end.
void Wait(const ServeOptions &options, const Events &events, const Service &service, const Interrupt &interrupt) {
    uint64_t printed = 0;
    for (;;) {
        std::array<pollfd, 2> entries = {{{interrupt.Fd(), POLLIN, 0}, {service.LimitFd(), POLLIN, 0}}};
        const int ready = poll(entries.data(), entries.size(), options.count ? SECOND_MS : -1);
        if (ready > 0) {
            return;
        }
        const ServiceCounts counts = service.Counts();
        if (counts.requests != printed) {
            printed = counts.requests;
            events.Counts(options.names.front(), counts);
        }
    }
}

int ServeOnThreads(const ServeOptions &options, gid_t group, const Interrupt &interrupt) {
    const Events events(options);
    const std::string &name = options.names.front();
    Service service(options, MakeResponder(options, interrupt));
    const int result = service.Start(group);
    if (result != 0) {
        return ExplainStart(result, name);
    }
    events.Serving(name);
    Wait(options, events, service, interrupt);
    service.Stop();
    events.Ended(name, service.Counts());
    return EXIT_DONE;
}

int ServeOnLoop(const ServeOptions &options, gid_t group, const Interrupt &interrupt) {
    LoopServer server(options);
    for (const std::string &name : options.names) {
        const int result = server.Open(name, group);
        if (result != 0) {
            return ExplainStart(result, name);
        }
    }
    const Events events(options);
    for (const std::string &name : options.names) {
        events.Serving(name);
    }
    server.Run(interrupt);
    server.Stop();
    return EXIT_DONE;
}

int RunServe(const ServeOptions &options, const Interrupt &interrupt) {
    const std::optional<gid_t> group = options.group.empty() ? UINT32_MAX : GroupOf(options.group);
    if (!group) {
        Diagnose("there is no group '{}'", options.group);
        return EXIT_USAGE;
    }
    if (!EngineFits(options) || !NamesFit(options)) {
        return EXIT_USAGE;
    }
    if (!NamesAreFree(options)) {
        return EXIT_FAILED;
    }
    return IsOnLoop(options) ? ServeOnLoop(options, *group, interrupt) : ServeOnThreads(options, *group, interrupt);
}

void AddWork(CommandLine &sub, ServeOptions &options) {
    CommandLine work = sub.Alternatives("answer", "What is answered; --echo when nothing is named");
    work.Flag("--echo", options.echo, "Answer with the request itself");
    work.Add("--exec", options.exec,
             "Run CMD with the shell for each request, which is its standard input; what it prints is the "
             "answer. $TARVO_CLIENT is the client's name, $TARVO_SERVER the one that it has called")
        .Type("CMD");
    work.Flag("--count", options.count, "Answer nothing, and print how much has come, each second that more has");
}

} // namespace

void AddServe(CommandLine &app, Command &command) {
    auto options = std::make_shared<ServeOptions>();
    CommandLine sub = AddSubcommand(app, command, "serve", "Serve under a name, or several, until Ctrl-C",
                                    "0 ended by Ctrl-C or --limit; 1 failed, or the name is in use; 2 wrong usage.");
    sub.Add("NAME", options->names, "Name to serve under; several are served by one thread, on the loop").Required();
    AddWork(sub, *options);
    sub.Add("--exec-timeout", options->execTimeout, "How long CMD may run (10s)");
    sub.Flag("--print", options->print, "Print each request on standard output");
    sub.Add("--limit", options->limit, "End after so many requests, over all names").AtLeastOne().Type("N");
    sub.Add("--group", options->group, "Group that may connect (default: the directory's, or this user's)")
        .Type("GROUP");
    sub.Add("--engine", options->engine,
            "threads (the default for one name), or loop: all on one thread (the default for several)")
        .OneOf({ENGINE_THREADS, ENGINE_LOOP})
        .Type("ENGINE");
    sub.Add("--priority", options->priority, "normal, or urgent to serve on real-time threads")
        .OneOf({"normal", "urgent"})
        .Type("PRIORITY")
        .ShowDefault();
    sub.Flag("--replace", options->replace, "Take the name even from a server that has it");
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunServe(*options, interrupt); };
    });
}

} // namespace tarvoctl
