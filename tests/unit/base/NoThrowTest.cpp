#include "base/NoThrow.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

template <typename Exception>
int CodeOf(Exception exception) {
    try {
        throw exception;
    } catch (...) {
        return CodeOfException();
    }
}

std::system_error SystemError(int code) { return {code, std::generic_category()}; }

TEST(NoThrow, AnExceptionBecomesTheErrorThatItTells) {
    EXPECT_EQ(-ENOMEM, CodeOf(std::bad_alloc()));
    EXPECT_EQ(-EAGAIN, CodeOf(SystemError(EAGAIN)));
    EXPECT_EQ(-EINVAL, CodeOf(std::runtime_error("tells none")));
    EXPECT_EQ(-EINVAL, CodeOf(std::string("no exception of the library's")));
}

TEST(NoThrow, AnErrorWithoutACodeIsAFailureAllTheSame) {
    EXPECT_EQ(-EIO, CodeOf(SystemError(0)));
    EXPECT_EQ(-EIO, CodeOf(SystemError(-3)));
}

} // namespace
