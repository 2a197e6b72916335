#ifndef TARVO_TOOLS_BENCHKIT_H
#define TARVO_TOOLS_BENCHKIT_H

#include <string>

#include "tools/ToolTest.h"

namespace tarvo_test {

// No file of a benchmark, whose server is named after its process, is left.
class BenchTest : public ToolTest {
protected:
    static std::string ServerName(pid_t bench) { return "tarvoctl_bench_" + std::to_string(bench); }

    static std::vector<std::filesystem::path> FilesOf(pid_t bench) {
        std::vector<std::filesystem::path> files;
        for (const auto &entry : std::filesystem::directory_iterator(FifoDirectory())) {
            if (entry.path().filename().string().find(ServerName(bench)) != std::string::npos) {
                files.push_back(entry.path());
            }
        }
        return files;
    }

    static void AwaitNoFiles(pid_t bench) {
        AwaitFifoDirectory("no file of the benchmark is left", [&] { return FilesOf(bench).empty(); });
    }

    // The server's process among those that the benchmark has started; -1 when there is none.
    static pid_t ServerOf(pid_t bench) {
        const nlohmann::json list = RunTool({"list", "--json"}).Json().at(0);
        for (const nlohmann::json &server : list["servers"]) {
            if (server["name"] == ServerName(bench)) {
                return server["processes"].at(0)["pid"];
            }
        }
        return -1;
    }

    // The figures of one size: something was measured, nothing was lost, and each agrees with the others.
    static void ExpectFigures(const nlohmann::json &round) {
        EXPECT_GT(round["calls"].get<int>(), 0);
        EXPECT_EQ(round["failures"], 0);
        EXPECT_GT(round["calls_per_second"].get<double>(), 0);
        double before = 0;
        for (const char *figure : {"min_us", "p50_us", "p90_us", "p99_us", "p999_us", "max_us"}) {
            EXPECT_GE(round[figure].get<double>(), before) << figure;
            before = round[figure].get<double>();
        }
        int counted = 0;
        for (const nlohmann::json &bucket : round["histogram"]["buckets"]) {
            counted += bucket[1].get<int>();
        }
        EXPECT_EQ(counted, round["calls"]) << "every call is in the histogram";
    }
};

} // namespace tarvo_test

#endif // TARVO_TOOLS_BENCHKIT_H
