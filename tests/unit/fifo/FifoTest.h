// What the tests of this folder share.
#ifndef TARVO_UNIT_FIFO_FIFOTEST_H
#define TARVO_UNIT_FIFO_FIFOTEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <utility>

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

// Leaves no file, descriptor or thread behind.
class FifoTest : public LeakCheckedTest {
protected:
    FifoTest() : path(NewPath("fifo")) {}

    // In the directory whose files are checked for leaks.
    static std::string NewPath(const std::string &purpose) { return FifoDirectory() + UniqueName(purpose); }

    const std::string path;
};

} // namespace tarvo_test

#endif // TARVO_UNIT_FIFO_FIFOTEST_H
