// What the tests of this folder share.
#ifndef TARVO_UNIT_FIFO_FIFOTEST_H
#define TARVO_UNIT_FIFO_FIFOTEST_H

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "support/LeakCheck.h"
#include "support/Names.h"
#include "unit/fifo/LogCalls.h"

namespace tarvo_test {

constexpr uint32_t NO_GID = 0xFFFFFFFFU;
constexpr mode_t PERMISSION_BITS = 07777;

inline LogCall ErrorLine(const char *file, std::string message) {
    return {LOG_TYPE_TARVO, LOG_ERR, file, std::move(message)};
}
inline LogCall InfoLine(const char *file, std::string message) {
    return {LOG_TYPE_TARVO, LOG_INFO, file, std::move(message)};
}
inline LogCall RestrainedLine(const char *file, std::string message) {
    return {LOG_TYPE_TARVO_RESTRAINED, LOG_ERR, file, std::move(message)};
}

inline bool Exists(const std::string &path) {
    struct stat state;
    return ::lstat(path.c_str(), &state) == 0;
}

inline struct stat StateOf(const std::string &path) {
    struct stat state {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &state)) << path;
    return state;
}

inline void WriteFile(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline void MakeFifo(const std::string &path) { ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600)); }

inline void MakeLink(const std::string &target, const std::string &path) {
    ASSERT_EQ(0, ::symlink(target.c_str(), path.c_str()));
}

// Leaves no file, descriptor or thread behind. What stands under the test's own names goes with it, and nothing else.
class FifoTest : public LeakCheckedTest {
protected:
    FifoTest() : path(NewPath("fifo")) {}
    ~FifoTest() override {
        for (const std::string &own : paths) {
            ::unlink(own.c_str());
        }
    }

    // In the directory whose files are checked for leaks.
    std::string NewPath(const std::string &purpose) {
        return paths.emplace_back(FifoDirectory() + UniqueName(purpose));
    }

    LogCall NotAFifo(mode_t mode) const {
        return ErrorLine("velm_fifo", Text("File %s(mode=%u) exists but is not fifo file.", path.c_str(), mode));
    }

private:
    std::vector<std::string> paths;

protected:
    const std::string path;
};

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_FIFOTEST_H
