// The processes that hold FIFOs, and what the kernel allows processes.
#include <fmt/format.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>

#include "doctor/Checks.h"
#include "fifo/security_context.h"
#include "shared/Ids.h"

namespace tarvoctl {
namespace {

// A process may have 1024 pipes, a FIFO in each direction, and some descriptors for its threads.
constexpr uint64_t ALL_DESCRIPTORS = 2048 + 32;
constexpr uint64_t FEW_DESCRIPTORS = 256;
// Workers, monitors and the server's thread.
constexpr uint64_t ALL_THREADS = 1024 + 20 + 6 + 1;
// A FIFO takes so many pages unless there is less to have, see pipe(7).
constexpr uint64_t FIFO_PAGES = 16;
constexpr int URGENT_PRIORITY = 50;

std::string NumberOrAny(rlim_t limit) { return limit == RLIM_INFINITY ? "any number of" : std::to_string(limit); }

// The limit of threads of the control group that this process is in; empty when there is none.
std::optional<uint64_t> GroupThreads() {
    std::ifstream groups("/proc/self/cgroup");
    for (std::string line; std::getline(groups, line);) {
        if (line.rfind("0::", 0) == 0) {
            return KernelNumber("/sys/fs/cgroup" + line.substr(3) + "/pids.max");
        }
    }
    return std::nullopt;
}

// One of a pipe that both sides opened in server mode has a finding of its own.
bool IsOfCrossedPipe(const Inventory &inventory, const std::string &file) {
    return std::any_of(inventory.pipes.begin(), inventory.pipes.end(), [&](const PipeEntry &pipe) {
        return pipe.state == State::CROSSED && (pipe.fromFirst->name == file || pipe.fromSecond->name == file);
    });
}

void CheckProcess(const Process &process, Findings &findings) {
    if (!process.ignoresSigpipe) {
        findings.push_back({Level::WARNING, "processes",
                            fmt::format("process {} ({}) does not ignore SIGPIPE: it dies when it sends to a peer that "
                                        "is gone",
                                        process.pid, process.name),
                            "signal(SIGPIPE, SIG_IGN) at its start"});
    }
    if (process.stopped) {
        findings.push_back({Level::WARNING, "processes",
                            fmt::format("process {} ({}) is stopped, by a signal or a debugger: who calls it waits",
                                        process.pid, process.name),
                            fmt::format("kill -CONT {}, or let the debugger go on", process.pid)});
    }
}

} // namespace

std::optional<uint64_t> KernelNumber(const std::string &path) {
    std::ifstream file(path);
    uint64_t number = 0;
    return file >> number ? std::optional<uint64_t>(number) : std::nullopt;
}

void CheckProcesses(const Patient &patient, Findings &findings) {
    const Holders &holders = patient.inventory.holders;
    if (!holders.Complete()) {
        findings.push_back({Level::NOTE, "processes",
                            holders.ownNamespace
                                ? "only the processes of this pid namespace are seen"
                                : fmt::format("{} processes of other users are not seen", holders.hidden),
                            "run it as root, outside of containers"});
    }
    for (const NamelessFifo &fifo : holders.nameless) {
        if (fifo.holder.reads && !IsOfCrossedPipe(patient.inventory, fifo.path)) {
            findings.push_back({Level::WARNING, "processes",
                                fmt::format("process {} reads the FIFO '{}', which was replaced or removed: nobody "
                                            "reaches it",
                                            fifo.holder.pid, fifo.path),
                                "let only one process serve under a name, and restart the right one"});
        }
    }
    for (const Process &process : UsersOf(patient.inventory)) {
        CheckProcess(process, findings);
    }
}

void CheckPipes(const Patient &patient, Findings &findings) {
    for (const PipeEntry &pipe : patient.inventory.pipes) {
        if (pipe.state == State::CROSSED) {
            findings.push_back({Level::ERROR, "pipes",
                                fmt::format("'{}' and '{}' have both opened their pipe in server mode: each made its "
                                            "FIFOs, and nobody reaches the one whose FIFO was replaced",
                                            pipe.first.name, pipe.second.name),
                                "open one side in server mode, the other in client mode (TARVO_MODE_CLIENT)"});
        }
    }
}

void CheckPipeLimits(const Patient &patient, Findings &findings) {
    const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    const uint64_t size = KernelNumber("/proc/sys/fs/pipe-max-size").value_or(FIFO_PAGES * page);
    if (size < FIFO_PAGES * page) {
        findings.push_back(
            {Level::WARNING, "pipes",
             fmt::format("pipe-max-size is {}: a FIFO holds less than its usual {} bytes", size, FIFO_PAGES * page),
             fmt::format("sysctl fs.pipe-max-size={}", FIFO_PAGES * page)});
    }
    const uint64_t soft = KernelNumber("/proc/sys/fs/pipe-user-pages-soft").value_or(0);
    std::map<uid_t, uint64_t> pages;
    for (const auto &[id, list] : patient.inventory.holders.fifos) {
        const auto process = patient.inventory.holders.processes.find(list.front().pid);
        pages[process == patient.inventory.holders.processes.end() ? 0 : process->second.user] += FIFO_PAGES;
    }
    for (const auto &[user, used] : pages) {
        if (soft != 0 && used > soft / 10 * 8) {
            findings.push_back(
                {Level::WARNING, "pipes",
                 fmt::format("the FIFOs of {} take up to {} of the {} pages that a user may have; beyond "
                             "that they hold 2 pages each",
                             UserText(user), used, soft),
                 fmt::format("sysctl fs.pipe-user-pages-soft={}", soft * 4)});
        }
    }
    findings.push_back({Level::OK, "pipes",
                        soft == 0 ? fmt::format("pipe-max-size {}, any number of FIFOs of full size for a user", size)
                                  : fmt::format("pipe-max-size {}, {} FIFOs of full size for a user "
                                                "(pipe-user-pages-soft {})",
                                                size, soft / FIFO_PAGES, soft),
                        ""});
}

void CheckProcessLimits(Findings &findings) {
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const std::string have = NumberOrAny(descriptors.rlim_cur) + " descriptors";
    if (descriptors.rlim_cur < ALL_DESCRIPTORS) {
        findings.push_back({descriptors.rlim_cur < FEW_DESCRIPTORS ? Level::WARNING : Level::NOTE, "descriptors",
                            fmt::format("{} for a process: about {} of at most 1024 pipes", have,
                                        descriptors.rlim_cur < 64 ? 0 : (descriptors.rlim_cur - 32) / 2),
                            fmt::format("ulimit -n {0}; LimitNOFILE={0} in a systemd unit", ALL_DESCRIPTORS)});
    } else {
        findings.push_back({Level::OK, "descriptors", have + " for a process", ""});
    }
    rlimit threads{};
    getrlimit(RLIMIT_NPROC, &threads);
    const uint64_t inGroup = GroupThreads().value_or(RLIM_INFINITY);
    const uint64_t inSystem = KernelNumber("/proc/sys/kernel/threads-max").value_or(RLIM_INFINITY);
    const uint64_t least = std::min({static_cast<uint64_t>(threads.rlim_cur), inGroup, inSystem});
    if (least < ALL_THREADS) {
        findings.push_back(
            {Level::NOTE, "threads",
             fmt::format("{} threads: fewer than the {} that one process may need for callbacks", least, ALL_THREADS),
             fmt::format("ulimit -u; TasksMax={0} and LimitNPROC={0} in a systemd unit", 2 * ALL_THREADS)});
    } else {
        findings.push_back({Level::OK, "threads", NumberOrAny(least) + " threads", ""});
    }
}

void CheckScheduling(Findings &findings) {
    int error = 0;
    // Tried, since right, limit, group and kernel settings must all agree. The thread ends at once.
    std::thread([&error] {
        sched_param parameter{};
        parameter.sched_priority = URGENT_PRIORITY;
        error = pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter);
    }).join();
    if (error == 0) {
        findings.push_back({Level::OK, "real-time", "urgent pipes are served at real-time priority 50", ""});
    } else {
        findings.push_back(
            {Level::NOTE, "real-time",
             fmt::format("no right to real-time priority 50 ({}): urgent pipes run as normal ones",
                         std::strerror(error)),
             "rtprio 50 in /etc/security/limits.conf, LimitRTPRIO=50 in a systemd unit, or CAP_SYS_NICE"});
    }
}

void CheckLabels(Findings &findings) {
    const bool library = IsAuthEnabled() > 0;
    const std::optional<uint64_t> enforcing = KernelNumber("/sys/fs/selinux/enforce");
    const std::string text =
        fmt::format("the library {} its FIFOs, SELinux is {}", library ? "labels" : "does not label",
                    !enforcing        ? "not active"
                    : *enforcing == 1 ? "enforcing"
                                      : "permissive");
    if (enforcing && !library) {
        findings.push_back({Level::NOTE, "labels", text + ": FIFOs get the type that the policy has for the directory",
                            "let the policy allow the peers to use that type (column LABEL of tarvoctl list)"});
    } else {
        findings.push_back({Level::OK, "labels", text, ""});
    }
}

void CheckLog(Findings &findings) {
    if (access("/dev/log", W_OK) == 0) {
        findings.push_back({Level::OK, "log", "the library's lines reach the system log", ""});
    } else {
        findings.push_back({Level::NOTE, "log", "there is no /dev/log: the library's lines are lost",
                            "start a system log; for the tool itself, --log shows them"});
    }
}

} // namespace tarvoctl
