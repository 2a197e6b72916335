// The main function of the test programs: runs all tests one after another in this process, as GoogleTest does, or with
// --each-forked each in a process of its own, two at a time. That process has nothing of the others' and is not started
// anew, which under a sanitizer or an emulator takes longer than most tests.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "support/Names.h"
#include "support/Watchdog.h"

namespace tarvo_test {
namespace {

constexpr std::size_t AT_A_TIME = 2;

std::vector<std::string> AllTests() {
    std::vector<std::string> names;
    const testing::UnitTest &program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i) {
        const testing::TestSuite &suite = *program.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); ++j) {
            names.push_back(std::string(suite.name()) + "." + suite.GetTestInfo(j)->name());
        }
    }
    return names;
}

struct Running {
    std::string test;
    int output; // a file in memory, which nobody has to read meanwhile
    pid_t pid;
};

[[noreturn]] void RunHere(const std::string &test, int output, const std::vector<Running> &others) {
    for (const Running &other : others) {
        close(other.output);
    }
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    close(output);
    RenewNameTag();
    testing::GTEST_FLAG(filter) = test;
    const bool passed = RUN_ALL_TESTS() == 0;
    const bool ran = testing::UnitTest::GetInstance()->test_to_run_count() == 1; // GoogleTest is content with none
    ArmAlarm(TestLimit());                                                       // the end is part of the test, too
    std::exit(passed && ran ? EXIT_SUCCESS : EXIT_FAILURE);
}

Running Start(const std::string &test, const std::vector<Running> &others) {
    std::fflush(nullptr);
    const int output = memfd_create("output", MFD_CLOEXEC);
    const pid_t pid = output < 0 ? -1 : fork();
    if (pid == 0) {
        RunHere(test, output, others);
    }
    if (pid < 0) {
        std::perror("a process for the next test");
        std::exit(EXIT_FAILURE);
    }
    return {test, output, pid};
}

std::string Content(int file) {
    std::string text;
    std::array<char, 65536> part;
    ssize_t count = 0;
    for (off_t at = 0; (count = pread(file, part.data(), part.size(), at)) > 0; at += count) {
        text.append(part.data(), static_cast<std::size_t>(count));
    }
    return text;
}

// What is to be read besides that the test has passed.
bool IsRemarkable(std::string_view text) {
    for (const std::string_view sign : {"Skipped", "Sanitizer: ", ": runtime error: "}) {
        if (text.find(sign) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

// Whether the test has passed.
bool Report(const Running &ended, int status, const rusage &used) {
    const std::string text = Content(ended.output);
    const bool passed = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!passed || IsRemarkable(text)) {
        std::fwrite(text.data(), 1, text.size(), stdout);
    }
    if (!passed) {
        std::printf("%s: %s %d\n", ended.test.c_str(), WIFSIGNALED(status) ? "ended by signal" : "ended with",
                    WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    }
    const auto milliseconds = [](const timeval &time) { return time.tv_sec * 1000 + time.tv_usec / 1000; };
    std::printf("[%s] %s (%ld ms of processor time)\n", passed ? "       OK " : "  FAILED  ", ended.test.c_str(),
                milliseconds(used.ru_utime) + milliseconds(used.ru_stime));
    return passed;
}

int RunEachForked() {
    const std::vector<std::string> tests = AllTests();
    std::vector<Running> running;
    std::size_t next = 0;
    std::size_t failed = 0;
    while (next < tests.size() || !running.empty()) {
        while (next < tests.size() && running.size() < AT_A_TIME) {
            running.push_back(Start(tests[next++], running));
        }
        int status = 0;
        rusage used{};
        const pid_t pid = wait4(-1, &status, 0, &used);
        if (pid < 0 && errno != EINTR) {
            std::perror("the end of a test");
            return EXIT_FAILURE;
        }
        for (std::size_t i = 0; i < running.size(); ++i) {
            if (running[i].pid == pid) {
                failed += Report(running[i], status, used) ? 0 : 1;
                close(running[i].output);
                running.erase(running.begin() + static_cast<std::ptrdiff_t>(i));
                break;
            }
        }
    }
    std::printf("Tests forked: %zu, failed: %zu\n", tests.size(), failed);
    return failed == 0 && !tests.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

} // namespace
} // namespace tarvo_test

int main(int argc, char **argv) {
    testing::InitGoogleMock(&argc, argv);
    if (argc == 2 && std::string_view(argv[1]) == "--each-forked") {
        return tarvo_test::RunEachForked();
    }
    return RUN_ALL_TESTS();
}
