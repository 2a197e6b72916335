// Feeds files to a fuzz target one after another: the kept inputs in the ordinary test run, and single ones in a
// debugger. Arguments are files and directories of files.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/Target.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned LIMIT_S = 100;

// The input at hand, for the report of a hang or a crash.
const char *current = "none";

extern "C" void ReportHang(int) {
    // The process ends here in any case, so what a signal handler may not call can do no further harm.
    std::fprintf(stderr, "Hangs at %s\n", current);
    std::abort();
}

extern "C" void ReportCrash(int) {
    std::fprintf(stderr, "Ends at %s\n", current);
    std::signal(SIGABRT, SIG_DFL);
    std::abort();
}

std::vector<std::string> FilesOf(const std::vector<std::string> &arguments) {
    std::vector<std::string> files;
    for (const std::string &argument : arguments) {
        if (!fs::is_directory(argument)) {
            files.push_back(argument);
            continue;
        }
        const std::size_t before = files.size();
        for (const auto &entry : fs::directory_iterator(argument)) {
            files.push_back(entry.path());
        }
        std::sort(files.begin() + static_cast<std::ptrdiff_t>(before), files.end());
    }
    return files;
}

bool Feed(const std::string &file) {
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        std::fprintf(stderr, "Cannot read %s\n", file.c_str());
        return false;
    }
    const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    // A copy of exactly its size, so that a sanitizer sees the target read past the end.
    const std::vector<uint8_t> bytes(text.begin(), text.end());
    current = file.c_str();
    alarm(LIMIT_S);
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    alarm(0);
    return true;
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGALRM, ReportHang);
    std::signal(SIGABRT, ReportCrash);
    const std::vector<std::string> files = FilesOf({argv + 1, argv + argc});
    if (files.empty()) {
        std::fprintf(stderr, "Usage: %s FILE-OR-DIRECTORY... (and there must be an input)\n", argv[0]);
        return EXIT_FAILURE;
    }
    for (const std::string &file : files) {
        if (!Feed(file)) {
            return EXIT_FAILURE;
        }
    }
    std::printf("%zu inputs replayed\n", files.size());
    return EXIT_SUCCESS;
}
