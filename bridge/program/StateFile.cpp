#include "program/StateFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <system_error>

#include "base/UniqueFd.h"
#include "core/Report.h"
#include "loop/Moments.h"

namespace tarvo_bridge {
namespace {

constexpr int64_t LEAST_INTERVAL_MS = 300;
// After it could not be written.
constexpr int64_t RETRY_MS = 1000;

std::string TextOf(const Picture &picture, const std::string &machine) {
    nlohmann::json exports = nlohmann::json::array();
    for (const Picture::Export &entry : picture.exports) {
        exports.push_back({{"name", entry.name}, {"lives", entry.lives}});
    }
    nlohmann::json imports = nlohmann::json::array();
    for (const Picture::Import &entry : picture.imports) {
        imports.push_back({{"name", entry.rule.local},
                           {"service", entry.rule.service},
                           {"machine", entry.rule.machine},
                           {"carried_by", entry.carriedBy},
                           {"offered", entry.offered},
                           {"refused", entry.refused}});
    }
    nlohmann::json peers = nlohmann::json::array();
    for (const Picture::PeerState &entry : picture.peers) {
        peers.push_back({{"machine", entry.machine},
                         {"run", fmt::format("{:016x}", entry.run)},
                         {"wanted", entry.wanted},
                         {"up", entry.up},
                         {"sessions", entry.sessions}});
    }
    const nlohmann::json all{{"version", 1},       {"pid", getpid()},    {"machine", machine},
                             {"exports", exports}, {"imports", imports}, {"peers", peers}};
    return all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

// What bridges that were killed had no time for.
void RemoveThoseOfTheDead(const std::string &folder) {
    std::error_code missing;
    for (const auto &entry : std::filesystem::directory_iterator(folder, missing)) {
        int pid = 0;
        int read = 0;
        const std::string name = entry.path().filename();
        if (std::sscanf(name.c_str(), "bridge-%d.json%n", &pid, &read) == 1 && read > 0 && pid > 0 &&
            kill(pid, 0) != 0 && errno == ESRCH) {
            unlink(entry.path().c_str());
        }
    }
}

// 0 or an errno; what was there stays then.
int Replace(const std::string &path, const std::string &text) {
    const std::string fresh = path + ".new";
    // Never through what somebody else has put there.
    unlink(fresh.c_str());
    const UniqueFd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (file.Get() < 0) {
        return errno;
    }
    const ssize_t size = write(file.Get(), text.data(), text.size());
    int error = size < 0 ? errno : 0;
    if (error == 0 && size != static_cast<ssize_t>(text.size())) {
        error = ENOSPC; // which only the next write would tell
    }
    if (error == 0 && std::rename(fresh.c_str(), path.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(fresh.c_str());
    }
    return error;
}

} // namespace

StateFile::StateFile(TarvoLoop &loop, const std::string &folder, std::string machineName, const Bridge &shownBridge)
    : path(fmt::format("{}/bridge-{}.json", folder, getpid())), machine(std::move(machineName)), bridge(shownBridge),
      writing(loop, [this] { Write(); }) {
    RemoveThoseOfTheDead(folder);
}

StateFile::~StateFile() { unlink(path.c_str()); }

void StateFile::Changed() {
    if (!due) {
        due = true;
        writing.At(Now() / MICROSECONDS_PER_MILLISECOND + LEAST_INTERVAL_MS);
    }
}

void StateFile::Write() {
    due = false;
    std::string text = TextOf(bridge.Look(), machine);
    if (text == written) {
        return;
    }
    const int error = Replace(path, text);
    if (error != 0) {
        if (!failing) {
            Say(Level::WARNING, "'{}' cannot be written: {}; it is tried again", path, std::strerror(error));
        }
        failing = true;
        due = true;
        writing.At(Now() / MICROSECONDS_PER_MILLISECOND + RETRY_MS);
        return;
    }
    failing = false;
    written = std::move(text);
}

} // namespace tarvo_bridge
