// What the exported functions refuse before they touch anything, and how they say so.
#include <cerrno>

#include "ApiFixture.h"
#include "support/Faults.h"

namespace tarvo_test {
namespace {

// How often an open of any kind is tried with one attribute, and what each kind says.
void ExpectRefused(TarvoAttr *attr) {
    const SyslogCapture log;
    EXPECT_EQ(TarvoOpen(attr), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input variables error"), 1U);
    EXPECT_EQ(TarvoCreateClient(attr), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input variables error"), 2U);
    EXPECT_EQ(TarvoPipeTypeOpen(attr, TARVO_SERVER_PIPE), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input variables error."), 1U);
}

TEST_F(ApiTest, OpensRefuseANullAttribute) { ExpectRefused(nullptr); }

TEST_F(ApiTest, OpensRefuseBadNamesModesAndPriorities) {
    const std::string tooLong(101, 'x');
    const std::string empty;
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    attr.targetName = nullptr;
    ExpectRefused(&attr);
    for (const std::string &bad : {empty, tooLong, std::string("a|b"), std::string("../up")}) {
        attr = MakeAttr(self, bad, TARVO_MODE_SERVER);
        ExpectRefused(&attr);
        attr = MakeAttr(bad, remote, TARVO_MODE_SERVER);
        ExpectRefused(&attr);
    }
    attr = MakeAttr(self, remote, static_cast<TarvoMode>(2));
    ExpectRefused(&attr);
    attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
    attr.priority = static_cast<TarvoPriority>(3);
    ExpectRefused(&attr);
    EXPECT_TRUE(OwnFifoFiles().empty());
}

TEST_F(ApiTest, ShortOpenRefusesWhatTheLongOneDoes) {
    EXPECT_EQ(TarvoOpen(nullptr, nullptr, 0, TARVO_MODE_SERVER), -EINVAL);
    EXPECT_EQ(TarvoOpen(remote.c_str(), nullptr, 0, static_cast<TarvoMode>(2)), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input variables error"), 2U);
}

TEST_F(ApiTest, ServerRefusesBadAttributesWithOneText) {
    EXPECT_EQ(TarvoCreateServer(nullptr), -EINVAL);
    TarvoServerAttr attr;
    attr.selfName = "a;b";
    EXPECT_EQ(TarvoCreateServer(&attr), -EINVAL);
    attr.selfName = self.c_str();
    attr.priority = static_cast<TarvoPriority>(3);
    EXPECT_EQ(TarvoCreateServer(&attr), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input attr is nullptr"), 3U);
}

TEST_F(ApiTest, SendsRefuseEmptyBlocks) {
    Blocks blocks;
    TarvoResponse answer{};
    TarvoRequest noData = blocks.request;
    noData.data = nullptr;
    TarvoRequest noSize = blocks.request;
    noSize.size = 0;
    for (TarvoRequest *request : {static_cast<TarvoRequest *>(nullptr), &noData, &noSize}) {
        EXPECT_EQ(TarvoSendRequest(2, request), -EINVAL);
        EXPECT_EQ(TarvoTimedRPCSync(2, request, &answer, 100), -EINVAL);
        EXPECT_EQ(TarvoTimedRPCSync(2, request, nullptr, 100), -EINVAL);
        EXPECT_EQ(TarvoRPCSync(2, request, &answer), -EINVAL);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Argument invalid."), 12U);

    TarvoResponse responseWithoutData = blocks.response;
    responseWithoutData.data = nullptr;
    TarvoResponse responseWithoutSize = blocks.response;
    responseWithoutSize.size = 0;
    EXPECT_EQ(TarvoSendResponse(2, nullptr), -EINVAL);
    EXPECT_EQ(TarvoSendResponse(2, &responseWithoutData), -EINVAL);
    EXPECT_EQ(TarvoSendResponse(2, &responseWithoutSize), -EINVAL);
    EXPECT_EQ(log.CountExactly(LOG_ERR, "Input resp == NULL."), 3U);
    EXPECT_EQ(log.Lines().size(), 15U);
}

TEST_F(ApiTest, SendsToAnUnknownHandleFail) {
    Blocks blocks;
    TarvoResponse answer{};
    for (const int fd : {-1, 0, 1, 4711}) {
        const std::string text = std::to_string(fd);
        EXPECT_EQ(TarvoSendRequest(fd, &blocks.request), -ENOENT);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "SendRequest fail, because pipe is NULL, fd=" + text + "."));
        EXPECT_EQ(TarvoSendResponse(fd, &blocks.response), -ENOENT);
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "GetPipe fail, please check input fd(" + text + ")."));
        EXPECT_EQ(TarvoTimedRPCSync(fd, &blocks.request, &answer, 100), -ENOENT);
        EXPECT_EQ(TarvoRPCSync(fd, &blocks.request, &answer), -ENOENT);
    }
    EXPECT_EQ(log.CountExactly(LOG_ERR, "GetPipe fail, please check input fd(-1)."), 2U) << "one more by the call";
    EXPECT_EQ(log.CountExactly(LOG_ERR, "GetPipe fail, please check input fd(1)."), 1U) << "the call's is restrained";
}

TEST_F(ApiTest, CallWithoutAResponseIsASend) {
    Blocks blocks;
    EXPECT_EQ(TarvoTimedRPCSync(4711, &blocks.request, nullptr, -1), -ENOENT);
    EXPECT_TRUE(log.ContainsExactly(LOG_ERR, "SendRequest fail, because pipe is NULL, fd=4711."));
    EXPECT_EQ(blocks.request.id, 7U);

    std::promise<uint32_t> arrived;
    const PipePair pair([&](int, TarvoRequest *request) {
        if (request != nullptr) {
            arrived.set_value(request->id);
        }
    });
    EXPECT_EQ(TarvoTimedRPCSync(pair.far, &blocks.request, nullptr, -1), 0);
    EXPECT_EQ(arrived.get_future().get(), 7U);
}

TEST_F(ApiTest, ClosingAndCleaningAnUnknownHandleSucceeds) {
    for (const int fd : {-1, 0, 4711}) {
        EXPECT_EQ(TarvoClosePipe(fd), 0);
        EXPECT_EQ(TarvoCleanPipe(fd), 0);
    }
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ApiTest, RemoteNameIsWhoIsAtTheOtherEnd) {
    const PipePair pair;
    std::string name(101, 'x');
    EXPECT_EQ(TarvoGetRemoteName(pair.near, name.data(), 101), 0);
    EXPECT_EQ(name.c_str(), pair.farName);
    // Just enough, and one byte less.
    const auto needed = static_cast<uint32_t>(pair.nearName.size() + 1);
    name.assign(101, 'x');
    EXPECT_EQ(TarvoGetRemoteName(pair.far, name.data(), needed), 0);
    EXPECT_EQ(name, pair.nearName + '\0' + std::string(101 - needed, 'x'));
    name.assign(101, 'x');
    EXPECT_EQ(TarvoGetRemoteName(pair.far, name.data(), needed - 1), -EINVAL);
    EXPECT_EQ(TarvoGetRemoteName(pair.far, name.data(), 0), -EINVAL);
    EXPECT_EQ(TarvoGetRemoteName(pair.far, nullptr, 101), -EINVAL);
    for (const int fd : {-1, 0, 1, 4711}) {
        EXPECT_EQ(TarvoGetRemoteName(fd, name.data(), 101), -ENOENT);
    }
    EXPECT_EQ(name, std::string(101, 'x'));
    EXPECT_TRUE(log.Lines().empty());
}

TEST_F(ApiTest, RemoteNameOfAServersPipeIsItsClients) {
    static std::promise<std::string> name;
    TarvoServerAttr server;
    server.selfName = remote.c_str();
    server.openCallback = [](int fd, const char *, uint32_t) {
        char text[101] = "";
        EXPECT_EQ(TarvoGetRemoteName(fd, text, sizeof(text)), 0);
        name.set_value(text);
    };
    ASSERT_EQ(TarvoCreateServer(&server), 0);
    const int fd = CreateClient(self, remote);
    EXPECT_EQ(name.get_future().get(), self + "_" + std::to_string(getpid()));
    TarvoCfgFinishServer();
    char text[101] = "as before";
    EXPECT_EQ(TarvoGetRemoteName(fd, text, sizeof(text)), -ENOENT);
    EXPECT_STREQ(text, "as before");
    RemoveOwnFifoFiles();
}

TEST_F(ApiTest, DestroyingAResponseIsHarmlessWhenThereIsNothingInIt) {
    DestroyResponse(nullptr);
    TarvoResponse response{3, nullptr, 9};
    DestroyResponse(&response);
    response.data = new char[4];
    DestroyResponse(&response);
    EXPECT_EQ(response.data, nullptr);
    DestroyResponse(&response);
    EXPECT_EQ(response.data, nullptr);
}

TEST_F(ApiTest, FailedOpenIsReportedWithItsAttribute) {
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    attr.timeout = 10;
    attr.isConcur = true;
    EXPECT_EQ(TarvoOpen(&attr), -ETIMEDOUT);
    EXPECT_EQ(TarvoOpen(&attr), -ETIMEDOUT);
    EXPECT_EQ(log.CountExactly(LOG_WARNING, "OpenPipe unfinished fd=-110, Name=" + remote +
                                                ", mode=0, t=10, pid=-1, pr=1, isC=1, gid=4294967295, self=" + self),
              1U)
        << "restrained";
}

// The unit in which the last line with that message was written.
std::string UnitOf(const SyslogCapture &log, const std::string &message) {
    std::string unit;
    for (const LogLine &line : log.Lines()) {
        if (line.message.find(message) == 0) {
            EXPECT_EQ(line.label, "TARVO");
            unit = line.file;
        }
    }
    return unit;
}

TEST_F(ApiTest, LinesNameTheUnitOfTheirFunction) {
    TarvoOpen(nullptr);
    EXPECT_EQ(UnitOf(log, "Input variables error"), "tarvo");
    TarvoPipeTypeOpen(nullptr, TARVO_NORMAL_PIPE);
    EXPECT_EQ(UnitOf(log, "Input variables error."), "tarvo_internal");
    TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
    attr.timeout = 1;
    EXPECT_EQ(TarvoOpen(&attr), -ETIMEDOUT);
    EXPECT_EQ(UnitOf(log, "OpenPipe unfinished"), "tarvo_internal");
    TarvoSendRequest(2, nullptr);
    EXPECT_EQ(UnitOf(log, "Argument invalid."), "tarvo");
    TarvoCreateServer(nullptr);
    EXPECT_EQ(UnitOf(log, "Input attr is nullptr"), "tarvo");
    TarvoExceptionHandler(0);
    EXPECT_EQ(UnitOf(log, "Recv a signal 0."), "tarvo");
}

TEST_F(ApiTest, FailedOpenUnderTheProcessNameShowsNoSelfName) {
    const ScopedFault fault(Call::Mkfifo, EACCES);
    EXPECT_EQ(TarvoOpen(remote.c_str(), nullptr, 5, TARVO_MODE_SERVER), -EACCES);
    EXPECT_TRUE(log.ContainsExactly(LOG_WARNING, "OpenPipe unfinished fd=-13, Name=" + remote +
                                                     ", mode=1, t=5, pid=-1, pr=1, isC=0, gid=4294967295, "
                                                     "self=(null)"));
}

} // namespace
} // namespace tarvo_test
