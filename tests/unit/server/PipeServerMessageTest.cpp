#include "server/PipeServerMessage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "support/RawFrame.h"
#include "support/SyslogCapture.h"

namespace tarvo_test {
namespace {

std::string BytesOf(const PipeServerMessage &message) { return {message.GetData(), message.Size()}; }

TEST(PipeServerMessageTest, ConnectPacketCarriesGroupProcessAndName) {
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, "abc");
    ASSERT_EQ(message.Init(), 0);
    EXPECT_EQ(message.Size(), 23U);
    EXPECT_EQ(BytesOf(message), RawConnectPacket("abc", getgid(), getpid()));
}

TEST(PipeServerMessageTest, TerminatePacketHasNoNameField) {
    PipeServerMessage message(PIPE_SERVER_MSG_TERMINATE, "");
    ASSERT_EQ(message.Init(), 0);
    ASSERT_EQ(message.Size(), 16U);
    std::string expected = RawConnectPacket("", getgid(), getpid()).substr(0, 16);
    expected[4] = '\1';
    EXPECT_EQ(BytesOf(message), expected);
}

TEST(PipeServerMessageTest, ConnectPacketWithoutNameHasNoNameFieldEither) {
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, "");
    ASSERT_EQ(message.Init(), 0);
    EXPECT_EQ(BytesOf(message), RawConnectPacket("", getgid(), getpid()).substr(0, 16));
}

TEST(PipeServerMessageTest, NothingIsBuiltBeforeInit) {
    const PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, "abc");
    EXPECT_EQ(message.GetData(), nullptr);
    EXPECT_EQ(message.Size(), 23U);
}

TEST(PipeServerMessageTest, NameMayBeLongerThanAnyServerAccepts) {
    for (const std::size_t length : {1U, 110U, 111U, 200U, 254U}) {
        const std::string name(length, 'n');
        PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, name);
        ASSERT_EQ(message.Init(), 0) << length;
        EXPECT_EQ(message.Size(), 20 + length);
        EXPECT_EQ(BytesOf(message), RawConnectPacket(name, getgid(), getpid()));
    }
}

TEST(PipeServerMessageTest, NameAsLongAsAFileNameIsRefused) {
    const SyslogCapture log;
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, std::string(255, 'n'));
    EXPECT_EQ(message.Init(), -EINVAL);
    EXPECT_EQ(message.GetData(), nullptr);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "client name with size (255) >= NAME_MAX(255)."));
    EXPECT_EQ(message.Init(), -EINVAL);
}

TEST(PipeServerMessageTest, NameLongerThanAPacketIsRefusedForItsLength) {
    const SyslogCapture log;
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, std::string(5000, 'n'));
    EXPECT_EQ(message.Init(), -EINVAL);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "client name with size (5000) >= NAME_MAX(255)."));
}

TEST(PipeServerMessageTest, ZeroBytesOfANameAreSentLikeOthers) {
    const std::string name("a\0b", 3);
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, name);
    ASSERT_EQ(message.Init(), 0);
    EXPECT_EQ(BytesOf(message), RawConnectPacket(name, getgid(), getpid()));
}

TEST(PipeServerMessageTest, SecondInitBuildsTheSamePacket) {
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, "abc");
    ASSERT_EQ(message.Init(), 0);
    const std::string first = BytesOf(message);
    ASSERT_EQ(message.Init(), 0);
    EXPECT_EQ(BytesOf(message), first);
}

TEST(PipeServerMessageTest, SuccessWritesNoLine) {
    const SyslogCapture log;
    PipeServerMessage message(PIPE_SERVER_MSG_CONNECT, "abc");
    ASSERT_EQ(message.Init(), 0);
    EXPECT_TRUE(log.Lines().empty());
}

} // namespace
} // namespace tarvo_test
