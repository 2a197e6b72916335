#include "Roles.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "OneWayCount.h"
#include "SyscallCount.h"
#include "Time.h"

namespace bench {

namespace {

using nlohmann::json;

void Say(const json &what) { std::cout << what.dump() << std::endl; }

void RaiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void LockMemory(const Role &role) {
    const int flags = MCL_CURRENT | MCL_FUTURE | (role.lock == "onfault" ? MCL_ONFAULT : 0);
    if (!role.lock.empty() && mlockall(flags) != 0) {
        throw std::runtime_error("no right to lock memory");
    }
}

void WriteSamples(const std::string &path, const std::vector<int64_t> &samples) {
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(samples.data()),
               static_cast<std::streamsize>(samples.size() * sizeof(int64_t)));
    if (!file.flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

void Report(const Role &role, const Outcome &outcome) {
    if (!role.samples.empty()) {
        WriteSamples(role.samples, outcome.latencies);
    }
    if (!role.samples.empty() && !outcome.services.empty()) {
        WriteSamples(role.samples + ".services", outcome.services);
    }
    Say({{"operations", outcome.operations},
         {"failures", outcome.failures},
         {"begin", outcome.begin},
         {"end", outcome.end},
         {"own_time", outcome.ownTime},
         {"server_time", outcome.serverTime}});
}

// In a run of its own: a counter slows every system call of the machine down.
void CountSyscalls(const Role &role, Session &session, std::size_t count) {
    std::vector<pid_t> processes = role.servers;
    processes.push_back(getpid());
    const SyscallCount syscalls(processes);
    const Outcome outcome = session.RunExactly(count);
    Say({{"operations", outcome.operations}, {"syscalls", syscalls.Read()}});
}

} // namespace

int Describe() {
    const Contestant contestant = TheContestant();
    Say({{"name", contestant.name},
         {"remark", contestant.remark},
         {"version", contestant.version},
         {"abilities", contestant.abilities},
         {"design", contestant.design},
         {"floor", contestant.floor},
         {"build", BENCH_BUILD}});
    return 0;
}

int RunServer(const Role &role) {
    RaiseDescriptorLimit();
    OneWayCount::Create(role.place.endpoint);
    LockMemory(role);
    const std::unique_ptr<Server> server = TheContestant().serve(role.place);
    std::vector<pid_t> processes = server->Helpers();
    processes.push_back(getpid());
    Say({{"processes", processes}});
    server->Run(STDIN_FILENO);
    OneWayCount::Remove(role.place.endpoint);
    return 0;
}

int RunClient(const Role &role) {
    RaiseDescriptorLimit();
    LockMemory(role);
    const Contestant contestant = TheContestant();
    Session session(contestant, role.place, role.task, role.servers);
    session.Connect();
    session.WarmUp();
    Say({{"ready", true}});
    std::string command;
    int64_t argument = 0;
    while (std::cin >> command >> argument) {
        if (command == "run") {
            Report(role, session.Run(argument));
        } else if (command == "count") {
            CountSyscalls(role, session, static_cast<std::size_t>(argument));
        }
    }
    // Not through the destructors: receive threads of the contestants may still be at work on the connections.
    _exit(0);
}

int RunBusy() {
    for (volatile unsigned i = 0;; i = i + 1) {
    }
}

} // namespace bench
