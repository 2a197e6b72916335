// Two processes that start and stop a server of one name in a loop, each as fast as it can. Whoever starts must have
// both ends of one file, and whoever stops must stop its own server only, and at once.
#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "storm/Board.h"
#include "storm/CommandLine.h"
#include "storm/Percentile.h"
#include "storm/Proof.h"
#include "support/Names.h"
#include "support/Process.h"
#include "tarvo.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

struct Options {
    unsigned rounds = 20000;
    int limitMs = 2000;
    int endMs = 600000;
};

// The files of that name, replaced ones too, that this process has open, and how many descriptors of each.
std::map<ino_t, unsigned> OpenFiles(const std::string &path) {
    std::map<ino_t, unsigned> files;
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir("/proc/self/fd"), closedir);
    while (const dirent *const entry = readdir(folder.get())) {
        char target[4096] = "";
        const std::string link = std::string("/proc/self/fd/") + static_cast<const char *>(entry->d_name);
        struct stat state {};
        if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 && std::string(target).rfind(path, 0) == 0 &&
            stat(link.c_str(), &state) == 0) {
            ++files[state.st_ino];
        }
    }
    return files;
}

// Owns: the server of its process. Threads: one. Locks: none. Ends: any time.
class Twin {
public:
    Twin(const Options &what, const std::string &serverName)
        : options(what), name(serverName), path(tarvo_test::FifoDirectory() + serverName) {}

    int Run() {
        std::signal(SIGPIPE, SIG_IGN);
        for (unsigned round = 1; round <= options.rounds && good; ++round) {
            StartAndStop();
        }
        std::string results;
        for (const auto &[result, count] : starts) {
            results += fmt::format("  {} x {}", result, count);
        }
        fmt::print("starts:{}\na stop took {:.3f} ms (median), {:.3f} ms (99th percentile), {:.3f} ms (maximum)\n",
                   results, Percentile(stops, 0.5), Percentile(stops, 0.99), Percentile(stops, 1));
        std::fflush(stdout);
        return good ? 0 : 1;
    }

private:
    void StartAndStop() {
        TarvoServerAttr attr;
        attr.selfName = name.c_str();
        const int result = TarvoCreateServer(&attr);
        ++starts[result];
        if (result == 0) {
            const std::map<ino_t, unsigned> files = OpenFiles(path);
            Check(files.size() == 1 && files.begin()->second == 2, "a server has ends of different files");
        } else {
            Check(OpenFiles(path).empty(), "a failed start keeps a descriptor");
            // The other one was first, or has removed the file before it was opened (-ENOENT) or adopted (the last
            // two).
            const bool lost = result == -EAGAIN || result == -ENOENT || result == -EACCES || result == -EINVAL;
            Check(lost, fmt::format("a start: {}", result));
        }
        const int64_t start = Now();
        TarvoCfgFinishServer();
        stops.push_back(static_cast<double>(Now() - start) / 1e6);
        Check(stops.back() < options.limitMs, "a stop took too long");
    }

    void Check(bool fine, const std::string &what) {
        if (!fine && good) {
            good = false;
            fmt::print("FAILED: {}\n", what);
        }
    }

    const Options options;
    const std::string name;
    const std::string path;
    std::map<int, unsigned> starts; // by result
    std::vector<double> stops;      // in ms
    bool good = true;
};

bool Run(const Options &options) {
    const std::string name = tarvo_test::UniqueName("srv");
    std::vector<std::unique_ptr<ChildProcess>> twins;
    for (int i = 0; i < 2; ++i) {
        twins.push_back(std::make_unique<ChildProcess>([&](Channel &) { return Twin(options, name).Run(); }));
    }
    bool good = true;
    for (const std::unique_ptr<ChildProcess> &twin : twins) {
        const bool ended = twin->EndsWithin(options.endMs);
        if (!ended) {
            fmt::print("FAILED: a process hangs\n");
        }
        good = ended && twin->Wait() == 0 && good;
    }
    return good;
}

int Main(int argc, char **argv) {
    Options options;
    CommandLine line(
        "Two processes start and stop a server of one name at the same time. The exit status is the verdict.");
    line.Option("--rounds", options.rounds, "starts of each");
    line.Option("--limit", options.limitMs, "how long a stop may take, in ms");
    line.Option("--hangs-after", options.endMs, "how long all of it may take, in ms");
    if (const auto status = line.Parse(argc, argv)) {
        return *status;
    }
    return Prove([&] { return Run(options); });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
