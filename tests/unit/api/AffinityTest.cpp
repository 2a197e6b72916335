// Every thread of the library passes through the function that a platform may put its own in front of.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include "ApiFixture.h"
#include "support/Eventually.h"

namespace {

std::mutex passedMutex;
std::set<pid_t> passed;

} // namespace

// In front of the library's, which does nothing.
void NuroCoreSetaffinity(void) {
    const std::lock_guard<std::mutex> lock(passedMutex);
    passed.insert(gettid());
}

namespace tarvo_test {
namespace {

// The threads of this process that carry a name of the library's, by name. A worker's begins with "tv_".
std::map<std::string, std::set<pid_t>> LibraryThreads() {
    std::map<std::string, std::set<pid_t>> threads;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        name = name.rfind("tv_", 0) == 0 ? "tv_" : name;
        if (name == "tv_" || name == "tarvo_monitor" || name == "tarvo_server") {
            threads[name].insert(std::stoi(task.path().filename()));
        }
    }
    return threads;
}

// The names of those threads that have not passed.
std::vector<std::string> Strays() {
    std::vector<std::string> names;
    for (const auto &[name, ids] : LibraryThreads()) {
        const std::lock_guard<std::mutex> lock(passedMutex);
        const bool all = std::all_of(ids.begin(), ids.end(), [](pid_t id) { return passed.count(id) == 1; });
        if (!all) {
            names.push_back(name);
        }
    }
    return names;
}

TEST_F(ApiTest, EveryThreadSetsItsAffinityAtItsStart) {
    ASSERT_EQ(CreateServer(remote, Echo), 0);
    // Passes through all three kinds.
    ASSERT_EQ(Ask(CreateClient(self, remote), "hello"), "hello");

    // A thread that has just been started carries the name of the one that started it, and has passed nothing yet.
    EXPECT_TRUE(Eventually([] { return LibraryThreads().size() == 3 && Strays().empty(); }))
        << testing::PrintToString(Strays());
    const std::lock_guard<std::mutex> lock(passedMutex);
    EXPECT_EQ(passed.count(getpid()), 0U) << "callers' threads are their own";
    TarvoExceptionHandler(0); // removes the server's file
}

} // namespace
} // namespace tarvo_test
