#include "fifo/check_file_attr.h"

#include <cerrno>
#include <cstring>

#include "support/Faults.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char CHECK_FILE_ATTR_TAG[] = "check_file_attr";

class CheckFileAttr : public FifoTest {};

TEST_F(CheckFileAttr, StateOfAFileIsThatOfTheFile) {
    MakeFifo(path);
    struct stat state;
    EXPECT_EQ(0, GetFileState(path, state));
    EXPECT_TRUE(S_ISFIFO(state.st_mode));
    EXPECT_EQ(StateOf(path).st_ino, state.st_ino);
}

TEST_F(CheckFileAttr, StateOfALinkIsThatOfTheLinkItself) {
    MakeLink("/nowhere", path);
    struct stat state;
    EXPECT_EQ(0, GetFileState(path, state));
    EXPECT_TRUE(S_ISLNK(state.st_mode));
}

TEST_F(CheckFileAttr, FailedStateIsTheErrnoAndAClearedResult) {
    const LogCalls log;
    struct stat state;
    std::memset(&state, 0x5a, sizeof(state));
    EXPECT_EQ(-ENOENT, GetFileState(path, state));
    struct stat cleared;
    std::memset(&cleared, 0, sizeof(cleared));
    EXPECT_EQ(0, std::memcmp(&state, &cleared, sizeof(state)));

    const ScopedFault fault(Call::Lstat, ELOOP, Where().Path(path));
    EXPECT_EQ(-ELOOP, GetFileState(path, state));
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(CheckFileAttr, WhatIsNoLinkPassesSilently) {
    const LogCalls log;
    EXPECT_EQ(0, IsLink("/"));
    MakeFifo(path);
    EXPECT_EQ(0, IsLink(path));
    ::unlink(path.c_str());
    WriteFile(path, "text");
    EXPECT_EQ(0, IsLink(path));
    ::unlink(path.c_str());
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(CheckFileAttr, ALinkIsRefused) {
    MakeLink("/", path);
    const LogCalls log;
    EXPECT_EQ(-EINVAL, IsLink(path));
    EXPECT_THAT(log.All(), ElementsAre(ErrorLine(CHECK_FILE_ATTR_TAG, "File " + path + " is a symbolic link.")));
}

TEST_F(CheckFileAttr, WhetherAMissingFileIsALinkCannotBeTold) {
    const LogCalls log;
    EXPECT_EQ(-ENOENT, IsLink(path));
    const ScopedFault fault(Call::Lstat, EACCES, Where().Path(path));
    EXPECT_EQ(-EACCES, IsLink(path));
    EXPECT_THAT(log.All(),
                ElementsAre(ErrorLine(CHECK_FILE_ATTR_TAG, "Get the state of file " + path + " failed, ret=-2."),
                            ErrorLine(CHECK_FILE_ATTR_TAG, "Get the state of file " + path + " failed, ret=-13.")));
}

} // namespace
