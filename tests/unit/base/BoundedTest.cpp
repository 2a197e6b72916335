#include "base/bounded.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cwchar>
#include <string>

namespace {

// What each function does to a string buffer of `size`; the byte behind it must stay as it is.
struct Buffer {
    explicit Buffer(std::size_t length, const char *content = "old") : size(length), text(length + 1, '#') {
        std::memcpy(text.data(), content, std::min(length, std::strlen(content) + 1));
    }
    std::string Content() const {
        EXPECT_EQ(text[size], '#') << "written beyond the buffer";
        return std::string(text.data(), strnlen(text.data(), size));
    }
    char *Data() { return text.data(); }

    std::size_t size;
    std::string text;
};

int Format(Buffer &buffer, std::size_t count, const char *text) {
    return snprintf_s(buffer.Data(), buffer.size, count, "%s", text);
}

TEST(Bounded, MemcpyCopiesUpToTheWholeDestination) {
    char dest[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(memcpy_s(dest, 4, "wxyz", 4), 0);
    EXPECT_EQ(std::string(dest, 4), "wxyz");
    EXPECT_EQ(memcpy_s(dest, 4, "12", 2), 0);
    EXPECT_EQ(std::string(dest, 4), "12yz");
    EXPECT_EQ(memcpy_s(dest, 4, "z", 0), 0);
}

TEST(Bounded, MemcpyRefusesWhatDoesNotFitAndChangesNothing) {
    char dest[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(memcpy_s(dest, 4, "vwxyz", 5), ERANGE);
    EXPECT_EQ(memcpy_s(dest, 4, nullptr, 2), EINVAL);
    EXPECT_EQ(memcpy_s(nullptr, 4, "x", 1), EINVAL);
    EXPECT_EQ(std::string(dest, 4), "abcd");
}

TEST(Bounded, MemsetFillsUpToTheWholeDestination) {
    char dest[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(memset_s(dest, 4, 'x', 3), 0);
    EXPECT_EQ(std::string(dest, 4), "xxxd");
    EXPECT_EQ(memset_s(dest, 4, 'y', 5), ERANGE);
    EXPECT_EQ(memset_s(nullptr, 4, 'y', 1), EINVAL);
    EXPECT_EQ(std::string(dest, 4), "xxxd");
}

TEST(Bounded, StrcpyNeedsRoomForTheTerminator) {
    Buffer buffer(4);
    EXPECT_EQ(strcpy_s(buffer.Data(), 4, "abc"), 0);
    EXPECT_EQ(buffer.Content(), "abc");
    EXPECT_EQ(strcpy_s(buffer.Data(), 4, "abcd"), ERANGE);
    EXPECT_EQ(buffer.Content(), "");
    EXPECT_EQ(strcpy_s(buffer.Data(), 4, ""), 0);
    EXPECT_EQ(buffer.Content(), "");
}

TEST(Bounded, StrcpyRefusesNull) {
    Buffer buffer(4);
    EXPECT_EQ(strcpy_s(buffer.Data(), 4, nullptr), EINVAL);
    EXPECT_EQ(buffer.Content(), "");
    EXPECT_EQ(strcpy_s(nullptr, 4, "x"), EINVAL);
    Buffer untouched(4);
    EXPECT_EQ(strcpy_s(untouched.Data(), 0, "x"), EINVAL);
    EXPECT_EQ(untouched.Content(), "old");
}

TEST(Bounded, StrcatAppendsAsFarAsThereIsRoom) {
    Buffer buffer(6);
    EXPECT_EQ(strcat_s(buffer.Data(), 6, "12"), 0);
    EXPECT_EQ(buffer.Content(), "old12");
    EXPECT_EQ(strcat_s(buffer.Data(), 6, ""), 0);
    EXPECT_EQ(buffer.Content(), "old12");
    EXPECT_EQ(strcat_s(buffer.Data(), 6, "3"), ERANGE);
    EXPECT_EQ(buffer.Content(), "");
}

TEST(Bounded, StrcatRefusesNullAndUnterminatedStrings) {
    Buffer buffer(6);
    EXPECT_EQ(strcat_s(buffer.Data(), 6, nullptr), EINVAL);
    EXPECT_EQ(buffer.Content(), "");
    EXPECT_EQ(strcat_s(nullptr, 6, "x"), EINVAL);
    Buffer full(3);
    EXPECT_EQ(strcat_s(full.Data(), 3, "x"), EINVAL);
    EXPECT_EQ(full.Content(), "");
    Buffer untouched(4);
    EXPECT_EQ(strcat_s(untouched.Data(), 0, "x"), EINVAL);
    EXPECT_EQ(untouched.Content(), "old");
}

TEST(Bounded, FormattersGiveTheLength) {
    Buffer buffer(6);
    EXPECT_EQ(Format(buffer, 5, "12345"), 5);
    EXPECT_EQ(buffer.Content(), "12345");
    EXPECT_EQ(Format(buffer, 5, ""), 0);
    EXPECT_EQ(buffer.Content(), "");
    EXPECT_EQ(snprintf_s(buffer.Data(), 6, 5, "%d-%c", 12, 'x'), 4);
    EXPECT_EQ(buffer.Content(), "12-x");
}

TEST(Bounded, FormattersRefuseWhatDoesNotFit) {
    Buffer buffer(6);
    EXPECT_EQ(Format(buffer, 5, "123456"), -1);
    EXPECT_EQ(buffer.Content(), "");
    Buffer counted(6);
    EXPECT_EQ(Format(counted, 3, "1234"), -1); // there is room, but not that many were asked for
    EXPECT_EQ(counted.Content(), "");
    EXPECT_EQ(Format(counted, 3, "123"), 3);
    EXPECT_EQ(counted.Content(), "123");
}

TEST(Bounded, FormattersRefuseNullAndWhatCannotBeConverted) {
    Buffer buffer(6);
    EXPECT_EQ(snprintf_s(buffer.Data(), 6, 5, "%lc", static_cast<wint_t>(0x110000)), -1);
    EXPECT_EQ(buffer.Content(), "");
    EXPECT_EQ(snprintf_s(nullptr, 6, 5, "x"), -1);
    Buffer untouched(4);
    EXPECT_EQ(snprintf_s(untouched.Data(), 0, 5, "x"), -1);
    EXPECT_EQ(untouched.Content(), "old");
}

} // namespace
