#include "support/Names.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <system_error>

namespace tarvo_test {

namespace {

constexpr char ROOT[] = "/dev/shm/velm";
constexpr char DIRECTORY[] = "/dev/shm/velm/tarvo";
constexpr mode_t FOR_EVERYONE = 0777;

// The tests of one machine make it at the same time; the first one opens it to all users.
void MakeDirectory(const char *path) {
    if (mkdir(path, FOR_EVERYONE) == 0) {
        ::chmod(path, FOR_EVERYONE);
    }
}

std::string TagOfThisProcess() { return "t" + std::to_string(getpid()) + "_"; }

std::string &Tag() {
    static auto *const tag = new std::string(TagOfThisProcess());
    return *tag;
}

} // namespace

const std::string &NameTag() { return Tag(); }

void RenewNameTag() {
    Tag() = TagOfThisProcess();
    RemoveOwnFifoFiles();
}

std::string UniqueName(const std::string &purpose) {
    static std::atomic<unsigned> counter{0};
    return NameTag() + purpose + std::to_string(++counter);
}

std::string FifoDirectory() {
    MakeDirectory(ROOT);
    MakeDirectory(DIRECTORY);
    return std::string(DIRECTORY) + "/";
}

std::string FifoPath(const std::string &from, const std::string &to) { return FifoDirectory() + from + "__to__" + to; }

std::vector<std::string> OwnFifoFiles() {
    std::vector<std::string> found;
    std::error_code error;
    // Fixed also when there is no file yet: processes forked later look for the same tag.
    const std::string &tag = NameTag();
    for (const auto &entry : std::filesystem::directory_iterator(DIRECTORY, error)) {
        std::string name = entry.path().filename();
        // The tag is followed by a purpose, and preceded by nothing or by the "__to__" of a pipe name. It may stand
        // within the other name, too.
        if (name.compare(0, tag.size(), tag) == 0 || name.find('_' + tag) != std::string::npos) {
            found.push_back(std::move(name));
        }
    }
    return found;
}

void RemoveOwnFifoFiles() {
    for (const std::string &name : OwnFifoFiles()) {
        ::unlink((std::string(DIRECTORY) + "/" + name).c_str());
    }
}

} // namespace tarvo_test
