// Ends of a FIFO opened by hand. Neither waits for the other, and no program inherits them.
#ifndef TARVO_SUPPORT_FIFOENDS_H
#define TARVO_SUPPORT_FIFOENDS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "base/UniqueFd.h"

namespace tarvo_test {

inline UniqueFd ReadEnd(const std::string &file) {
    UniqueFd end(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_GE(end.Get(), 0) << "cannot read " << file;
    return end;
}

// There must be a read end.
inline UniqueFd WriteEnd(const std::string &file) {
    UniqueFd end(open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_GE(end.Get(), 0) << "nobody reads " << file;
    return end;
}

// Writes to a FIFO that nobody empties until it has no room left.
inline void FillFifo(const std::string &file) {
    const UniqueFd end = WriteEnd(file);
    // Whole pages, so that no room is left in the last one either.
    const std::string page(4096, '\0');
    while (write(end.Get(), page.data(), page.size()) > 0) {
    }
    EXPECT_EQ(errno, EAGAIN);
}

} // namespace tarvo_test

#endif // TARVO_SUPPORT_FIFOENDS_H
