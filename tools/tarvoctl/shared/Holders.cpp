#include "shared/Holders.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>

namespace tarvoctl {
namespace {

// The inode of the first pid namespace, fixed in the kernel (PROC_PID_INIT_INO).
constexpr ino_t FIRST_PID_NAMESPACE = 0xEFFFFFFCU;
// A kernel thread has no descriptors (PF_KTHREAD, field "flags" of /proc/PID/stat).
constexpr unsigned KERNEL_THREAD = 0x00200000U;
constexpr char DELETED[] = " (deleted)";

struct DirectoryCloser {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

std::string ReadSmallFile(const std::string &path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool IsNumber(const char *text) { return std::isdigit(static_cast<unsigned char>(*text)) != 0; }

// The text after `key` and a tab in the status of a process.
std::string StatusField(const std::string &status, const std::string &key) {
    const std::size_t at = status.find("\n" + key + ":");
    if (at == std::string::npos) {
        return "";
    }
    const std::size_t begin = status.find_first_not_of(" \t", at + key.size() + 2);
    return status.substr(begin, status.find('\n', begin) - begin);
}

bool IsKernelThreadOrZombie(const std::string &process) {
    const std::string stat = ReadSmallFile(process + "/stat");
    // The name of the program, in parentheses, may hold anything.
    const std::size_t end = stat.rfind(')');
    if (end == std::string::npos) {
        return true; // gone meanwhile
    }
    char state = 0;
    int parent = 0;
    int group = 0;
    int session = 0;
    int terminal = 0;
    int foreground = 0;
    unsigned flags = 0;
    std::istringstream fields(stat.substr(end + 1));
    fields >> state >> parent >> group >> session >> terminal >> foreground >> flags;
    return state == 'Z' || state == 'X' || (flags & KERNEL_THREAD) != 0;
}

uint64_t SignalSet(const std::string &status, const std::string &key) {
    return std::strtoull(StatusField(status, key).c_str(), nullptr, 16);
}

// The signals that every thread of the process has blocked: one that does not is ended by its own write.
uint64_t BlockedInAllThreads(const std::string &process) {
    uint64_t blocked = ~uint64_t{0};
    const Directory threads(opendir((process + "/task").c_str()));
    while (const dirent *entry = threads == nullptr ? nullptr : readdir(threads.get())) {
        const std::string status = ReadSmallFile(process + "/task/" + entry->d_name + "/status");
        if (IsNumber(entry->d_name) && !status.empty()) {
            blocked &= SignalSet(status, "SigBlk");
        }
    }
    return blocked;
}

// How a descriptor was opened; empty when it is gone.
std::optional<int> AccessOf(const std::string &process, const std::string &descriptor) {
    std::istringstream info(ReadSmallFile(process + "/fdinfo/" + descriptor));
    std::string key;
    std::string value;
    while (info >> key >> value) {
        if (key == "flags:") {
            return static_cast<int>(std::strtoul(value.c_str(), nullptr, 8)) & O_ACCMODE;
        }
    }
    return std::nullopt;
}

std::string TargetOf(const std::string &link) {
    std::array<char, PATH_MAX> target{};
    const ssize_t size = readlink(link.c_str(), target.data(), target.size());
    return size > 0 ? std::string(target.data(), static_cast<std::size_t>(size)) : std::string();
}

// One scan over the processes.
class Scanner {
public:
    Scanner(const std::string &fifoDirectory, Holders &found) : directory(WithSlash(fifoDirectory)), holders(found) {
        struct stat state {};
        device = stat(directory.c_str(), &state) == 0 ? state.st_dev : 0;
        std::array<char, PATH_MAX> resolved{};
        if (realpath(fifoDirectory.c_str(), resolved.data()) != nullptr) {
            directory = WithSlash(resolved.data()); // as the links in /proc have it
        }
    }

    void ScanProcess(const char *pid);

private:
    void ScanDescriptor(pid_t pid, const std::string &process, const std::string &descriptor);
    void AddNameless(const Holder &holder, const FileId &id, const std::string &target);

    std::string directory;
    Holders &holders;
    dev_t device = 0;
};

void Scanner::ScanProcess(const char *pid) {
    const std::string process = std::string("/proc/") + pid;
    const Directory descriptors(opendir((process + "/fd").c_str()));
    if (descriptors == nullptr) {
        const bool denied = errno == EACCES || errno == EPERM;
        holders.hidden += denied && !IsKernelThreadOrZombie(process) ? 1 : 0;
        return;
    }
    const auto number = static_cast<pid_t>(std::strtol(pid, nullptr, 10));
    errno = 0;
    while (const dirent *entry = readdir(descriptors.get())) {
        if (IsNumber(entry->d_name)) {
            ScanDescriptor(number, process, entry->d_name);
        }
    }
}

void Scanner::ScanDescriptor(pid_t pid, const std::string &process, const std::string &descriptor) {
    const std::string link = process + "/fd/" + descriptor;
    struct stat state {};
    // Following such a link looks the file up without opening it.
    if (stat(link.c_str(), &state) != 0 || !S_ISFIFO(state.st_mode) || state.st_dev != device) {
        return;
    }
    const std::optional<int> access = AccessOf(process, descriptor);
    if (!access) {
        return;
    }
    const Holder holder = {pid, *access != O_WRONLY, *access != O_RDONLY};
    const FileId id = {state.st_dev, state.st_ino};
    if (holders.processes.count(pid) == 0) {
        holders.processes[pid] = DescribeProcess(pid).value_or(Process());
    }
    if (state.st_nlink == 0) {
        AddNameless(holder, id, TargetOf(link));
        return;
    }
    std::vector<Holder> &all = holders.fifos[id];
    const auto same = std::find_if(all.begin(), all.end(), [pid](const Holder &other) { return other.pid == pid; });
    if (same == all.end()) {
        all.push_back(holder);
    } else {
        same->reads = same->reads || holder.reads;
        same->writes = same->writes || holder.writes;
    }
}

void Scanner::AddNameless(const Holder &holder, const FileId &id, const std::string &target) {
    const std::size_t end = target.rfind(DELETED);
    if (end == std::string::npos || target.compare(0, directory.size(), directory) != 0) {
        return;
    }
    holders.nameless.push_back({target.substr(directory.size(), end - directory.size()), id, holder});
}

} // namespace

std::optional<Process> DescribeProcess(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    const std::string status = ReadSmallFile(folder + "/status");
    if (status.empty()) {
        return std::nullopt;
    }
    Process process;
    process.pid = pid;
    process.name = ReadSmallFile(folder + "/comm");
    process.name.erase(process.name.find_last_not_of('\n') + 1);
    process.user = static_cast<uid_t>(std::strtoul(StatusField(status, "Uid").c_str(), nullptr, 10));
    process.label = ReadSmallFile(folder + "/attr/current");
    process.label.erase(process.label.find_last_not_of(std::string("\n\0", 2)) + 1);
    const uint64_t sigpipe = 1ULL << (SIGPIPE - 1);
    const uint64_t harmless = SignalSet(status, "SigIgn") | SignalSet(status, "SigCgt") | BlockedInAllThreads(folder);
    process.ignoresSigpipe = (harmless & sigpipe) != 0;
    const std::string state = StatusField(status, "State");
    process.stopped = !state.empty() && (state.front() == 'T' || state.front() == 't');
    return process;
}

bool IsInPidNamespace() {
    struct stat state {};
    return stat("/proc/self/ns/pid", &state) == 0 && state.st_ino != FIRST_PID_NAMESPACE;
}

pid_t OwnPidOf(pid_t pid) {
    // One number for each namespace that it is in, the innermost last.
    const std::string all = StatusField(ReadSmallFile("/proc/" + std::to_string(pid) + "/status"), "NSpid");
    const std::size_t last = all.find_last_of(" \t");
    return all.empty() ? pid : static_cast<pid_t>(std::strtol(all.c_str() + (last + 1), nullptr, 10));
}

// Lines such as "3: FLOCK  ADVISORY  WRITE 4711 00:1b:9007 0 EOF"; a waiting process has "->" as its second word.
Locks FindLocks() {
    Locks found;
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        int pid = 0;
        unsigned major = 0;
        unsigned minor = 0;
        unsigned long inode = 0;
        // NOLINTNEXTLINE(cert-err34-c): a line of another shape yields fewer fields
        if (std::sscanf(line.c_str(), "%*d: FLOCK %*s %*s %d %x:%x:%lu", &pid, &major, &minor, &inode) == 4) {
            found[{makedev(major, minor), inode}] = pid;
        }
    }
    return found;
}

std::vector<Holder> Holders::Of(const FileId &id) const {
    const auto found = fifos.find(id);
    return found == fifos.end() ? std::vector<Holder>() : found->second;
}

bool Holders::IsStopped(pid_t pid) const {
    const auto process = processes.find(pid);
    return process != processes.end() && process->second.stopped;
}

Holders FindHolders(const std::string &directory) {
    Holders holders;
    holders.ownNamespace = IsInPidNamespace();
    holders.locked = FindLocks();
    Scanner scanner(directory, holders);
    const Directory processes(opendir("/proc"));
    while (const dirent *entry = processes == nullptr ? nullptr : readdir(processes.get())) {
        if (IsNumber(entry->d_name)) {
            scanner.ScanProcess(entry->d_name);
        }
    }
    return holders;
}

} // namespace tarvoctl
