// The FIFO directory and its files.
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "doctor/Checks.h"
#include "shared/Ids.h"

namespace tarvoctl {
namespace {

// Two files for each of the pipes that one process may have.
constexpr uint64_t ENOUGH_INODES = 2048;
constexpr uint64_t ENOUGH_BYTES = 1048576;
constexpr mode_t FIFO_MODE = 0660;

// Who is in the group root may read and change what belongs to the system: nobody is put into it to send messages.
std::string SafeGroup(gid_t group) { return group == 0 ? "GROUP" : GroupText(group); }

void CheckMode(const struct stat &state, const std::string &path, Findings &findings) {
    const mode_t mode = state.st_mode & 07777U;
    const std::string facts = fmt::format("{}: mode {:04o}, group {}", path, mode, GroupText(state.st_gid));
    if ((mode & 0002U) != 0 && (mode & S_ISVTX) == 0) {
        findings.push_back({Level::WARNING, "directory", facts + ": every user may remove and replace every FIFO",
                            "tarvoctl init --group GROUP"});
    } else if ((mode & 0002U) != 0) {
        findings.push_back({Level::NOTE, "directory",
                            facts + ": every user may serve under any free name, as suits "
                                    "development",
                            "on a product: tarvoctl init --group GROUP"});
    } else if ((mode & 0020U) != 0 && (mode & S_ISGID) == 0) {
        findings.push_back({Level::WARNING, "directory",
                            facts + ": without the set-group-id bit, FIFOs get their creator's group",
                            "tarvoctl init --group " + SafeGroup(state.st_gid)});
    } else {
        findings.push_back({Level::OK, "directory", facts, ""});
    }
}

void CheckAccess(const std::string &path, const struct stat &state, Findings &findings) {
    if (access(path.c_str(), R_OK | W_OK | X_OK) == 0) {
        return;
    }
    const int error = errno;
    const bool groupHelps = state.st_gid != 0 && (state.st_mode & S_IRWXG) == S_IRWXG;
    const std::string joined = fmt::format("as root: usermod -aG {} {}, then log in again",
                                           groupHelps ? GroupText(state.st_gid) : "GROUP", UserText(getuid()));
    const std::string remedy = error == EROFS ? "mount it writable"
                               : groupHelps   ? joined
                                              : "as root: tarvoctl init --group GROUP; " + joined;
    findings.push_back(
        {Level::ERROR, "access",
         fmt::format("{} may not create FIFOs in {}: {}", UserText(getuid()), path, std::strerror(error)), remedy});
}

void CheckParent(const std::string &path, Findings &findings) {
    const std::string parent = path.substr(0, path.find_last_of('/', path.size() - 2));
    struct stat state {};
    if (!parent.empty() && stat(parent.c_str(), &state) == 0 && (state.st_mode & 0002U) != 0 &&
        (state.st_mode & S_ISVTX) == 0) {
        findings.push_back({Level::WARNING, "directory", parent + ": every user may replace the FIFO directory in it",
                            "chmod 755 " + parent});
    }
}

void CheckSpace(const std::string &path, Findings &findings) {
    struct statvfs space {};
    struct statfs system {};
    if (statvfs(path.c_str(), &space) != 0 || statfs(path.c_str(), &system) != 0) {
        return;
    }
    const uint64_t bytes = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    const bool counted = space.f_files != 0; // a file system may have no limit of files
    const std::string facts = fmt::format("{} MiB and {} files free", bytes / 1024 / 1024,
                                          counted ? std::to_string(space.f_favail) : std::string("any number of"));
    if (bytes < ENOUGH_BYTES || (counted && space.f_favail < ENOUGH_INODES)) {
        findings.push_back({Level::WARNING, "space", facts + ": soon no FIFO can be created",
                            "tarvoctl clean; remove what else lies there; mount it larger"});
    } else {
        findings.push_back({Level::OK, "space", facts, ""});
    }
    if (system.f_type != TMPFS_MAGIC && system.f_type != RAMFS_MAGIC) {
        findings.push_back(
            {Level::NOTE, "space", path + " is not in memory: its files outlive a restart", "mount a tmpfs there"});
    }
}

} // namespace

void CheckDirectory(const Patient &patient, Findings &findings) {
    const std::string &path = patient.inventory.directory;
    struct stat state {};
    // Without its final slash, so that a link is seen as one.
    if (lstat(path.substr(0, path.size() - 1).c_str(), &state) != 0) {
        findings.push_back({Level::ERROR, "directory", path + ": " + std::strerror(errno) + ": no server can start",
                            "as root: tarvoctl init; and a tmpfiles.d entry for every later start"});
        return;
    }
    if (!S_ISDIR(state.st_mode)) {
        findings.push_back({Level::ERROR, "directory", path + " is no directory", "remove it, then: tarvoctl init"});
        return;
    }
    CheckMode(state, path, findings);
    CheckAccess(path, state, findings);
    CheckParent(path, findings);
    CheckSpace(path, findings);
}

void CheckFiles(const Patient &patient, Findings &findings) {
    const Inventory &inventory = patient.inventory;
    std::size_t stale = 0;
    for (const Server &server : inventory.servers) {
        stale += server.state == State::STALE ? 1 : 0;
    }
    for (const PipeEntry &pipe : inventory.pipes) {
        stale += pipe.state == State::STALE ? (pipe.fromFirst ? 1U : 0U) + (pipe.fromSecond ? 1U : 0U) : 0;
    }
    if (stale > 0) {
        findings.push_back({Level::WARNING, "files",
                            fmt::format("{} of {} FIFOs are held by nobody", stale, inventory.files.fifos.size()),
                            "tarvoctl clean"});
    } else if (inventory.files.error == 0) {
        findings.push_back({Level::OK, "files",
                            fmt::format("{} FIFOs, {} servers, {} pipes", inventory.files.fifos.size(),
                                        inventory.servers.size(), inventory.pipes.size()),
                            ""});
    }
    for (const FifoFile &file : inventory.files.others) {
        findings.push_back({Level::NOTE, "files", inventory.directory + file.name + " is no FIFO",
                            "remove it, unless it is known to belong there"});
    }
    for (const FifoFile &file : inventory.files.fifos) {
        if ((file.mode & 07777U & ~FIFO_MODE) != 0) {
            findings.push_back({Level::WARNING, "files",
                                fmt::format("{}{} has mode {:04o}: more than owner and group may use it",
                                            inventory.directory, file.name, file.mode & 07777U),
                                "find out who has changed it; the library makes them 0660"});
        }
    }
}

} // namespace tarvoctl
