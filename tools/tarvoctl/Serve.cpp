// tarvoctl serve: a server for trying out clients.
#include <poll.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>

#include "api/EnvManager.h"
#include "serve/Service.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Ids.h"
#include "shared/Inventory.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr int SECOND_MS = 1000;

// Creating a server of a name in use takes it away from the one that has it.
bool NameIsFree(const ServeOptions &options) {
    const Inventory inventory = TakeInventory(EnvManager::FifoPrefix());
    const Server *other = inventory.FindServer(options.name);
    if (options.replace || other == nullptr || other->processes.empty()) {
        return true;
    }
    Diagnose("process {} serves as '{}' already; --replace takes the name from it", other->processes.front(),
             options.name);
    return false;
}

int ExplainStart(int result, const ServeOptions &options) {
    if (result == -EINVAL) {
        Diagnose("the name is refused: 1 to 100 characters, none of | ; > < ` & ( ) $ and no two dots in a row");
        return EXIT_USAGE;
    }
    if (result == -ENOENT) {
        Diagnose("{} is missing; 'tarvoctl init' makes it", EnvManager::FifoPrefix());
    } else {
        Diagnose("cannot serve as '{}': {}", options.name, std::strerror(-result));
    }
    return EXIT_FAILED;
}

std::unique_ptr<Responder> MakeResponder(const ServeOptions &options, const Interrupt &interrupt) {
    if (!options.exec.empty()) {
        return MakeExec(options.exec, options.execTimeout, interrupt.Fd());
    }
    return options.count ? MakeSink() : MakeEcho();
}

void PrintCounts(const ServeOptions &options, const char *event, const ServiceCounts &counts) {
    if (options.json) {
        PutJson({{"event", event},
                 {"requests", counts.requests},
                 {"answers", counts.answers},
                 {"bytes", counts.bytes},
                 {"clients", counts.clients}});
    } else if (options.count) {
        Put(fmt::format("{} requests, {} bytes, {} clients\n", counts.requests, counts.bytes, counts.clients));
    }
    FlushAnswer();
}

// Returns when the run is to end.
void Wait(const ServeOptions &options, const Service &service, const Interrupt &interrupt) {
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
            PrintCounts(options, "counts", counts);
        }
    }
}

int RunServe(const ServeOptions &options, Interrupt &interrupt) {
    const std::optional<gid_t> group = options.group.empty() ? UINT32_MAX : GroupOf(options.group);
    if (!group) {
        Diagnose("there is no group '{}'", options.group);
        return EXIT_USAGE;
    }
    if (!NameIsFree(options)) {
        return EXIT_FAILED;
    }
    Service service(options, MakeResponder(options, interrupt));
    const int result = service.Start(*group);
    if (result != 0) {
        return ExplainStart(result, options);
    }
    if (options.json) {
        PutJson({{"event", "serving"}, {"name", options.name}, {"pid", getpid()}});
        FlushAnswer();
    } else {
        Diagnose("serving as '{}'; Ctrl-C ends it", options.name);
    }
    Wait(options, service, interrupt);
    service.Stop();
    PrintCounts(options, "ended", service.Counts());
    return EXIT_DONE;
}

void AddWork(CommandLine &sub, ServeOptions &options) {
    CommandLine work = sub.Alternatives("answer", "What is answered; --echo when nothing is named");
    work.Flag("--echo", options.echo, "Answer with the request itself");
    work.Add("--exec", options.exec,
             "Run CMD with the shell for each request, which is its standard input; what it prints is the "
             "answer. $TARVO_CLIENT is the client's name")
        .Type("CMD");
    work.Flag("--count", options.count, "Answer nothing, and print how much has come, each second that more has");
}

} // namespace

void AddServe(CommandLine &app, Command &command) {
    auto options = std::make_shared<ServeOptions>();
    CommandLine sub = AddSubcommand(app, command, "serve", "Serve under a name until Ctrl-C",
                                    "0 ended by Ctrl-C or --limit; 1 failed, or the name is in use; 2 wrong usage.");
    sub.Add("NAME", options->name, "Name to serve under").Required();
    AddWork(sub, *options);
    sub.Add("--exec-timeout", options->execTimeout, "How long CMD may run (10s)");
    sub.Flag("--print", options->print, "Print each request on standard output");
    sub.Add("--limit", options->limit, "End after so many requests").AtLeastOne().Type("N");
    sub.Add("--group", options->group, "Group that may connect (default: the directory's, or this user's)")
        .Type("GROUP");
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
