#include "fifo/velm_check.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "support/Faults.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char VELM_CHECK_TAG[] = "velm_check";

class InputName : public FifoTest {
protected:
    const LogCalls log;
};

TEST_F(InputName, OfTheStatedLengthPasses) {
    EXPECT_EQ(0, CheckInputName("abc", 3, 3));
    EXPECT_EQ(0, CheckInputName("abc", 3, 100));
    EXPECT_EQ(0, CheckInputName("a", 1, 1));
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(InputName, NullIsRefused) {
    EXPECT_EQ(-EINVAL, CheckInputName(nullptr, 3, 10));
    EXPECT_THAT(log.All(), ElementsAre(ErrorLine(VELM_CHECK_TAG, "The input parameter target process-name is NULL.")));
}

TEST_F(InputName, LengthZeroIsRefused) {
    EXPECT_EQ(-EINVAL, CheckInputName("abc", 0, 10));
    EXPECT_EQ(-EINVAL, CheckInputName("", 0, 10));
    const LogCall line = ErrorLine(VELM_CHECK_TAG, "Length of process name is invalid, value=0, range(0, 10]");
    EXPECT_THAT(log.All(), ElementsAre(line, line));
}

TEST_F(InputName, LengthAboveTheMaximumIsRefused) {
    EXPECT_EQ(-EINVAL, CheckInputName("abcd", 4, 3));
    EXPECT_THAT(log.All(),
                ElementsAre(ErrorLine(VELM_CHECK_TAG, "Length of process name is invalid, value=4, range(0, 3]")));
}

TEST_F(InputName, LengthThatIsNotTheNamesIsRefused) {
    EXPECT_EQ(-EINVAL, CheckInputName("abc", 4, 10));
    EXPECT_EQ(-EINVAL, CheckInputName("abc", 2, 10));
    EXPECT_THAT(
        log.All(),
        ElementsAre(ErrorLine(VELM_CHECK_TAG, "Length of process name(value=4) is not equal to the length of target "
                                              "process(value=3)"),
                    ErrorLine(VELM_CHECK_TAG, "Length of process name(value=2) is not equal to the length of target "
                                              "process(value=3)")));
}

class RealPath : public FifoTest {};

TEST_F(RealPath, ReplacesAPathThroughLinks) {
    WriteFile(path, "text");
    const std::string link = NewPath("link");
    MakeLink(path, link);
    std::string resolved = FifoDirectory() + "../tarvo/" + link.substr(FifoDirectory().size());
    EXPECT_EQ(0, TransferToRealPath(resolved));
    EXPECT_EQ(std::filesystem::canonical(path), resolved);
}

TEST_F(RealPath, OfAMissingFileIsRefusedAndThePathUntouched) {
    const LogCalls log;
    std::string resolved = path;
    EXPECT_EQ(-ENOENT, TransferToRealPath(resolved));
    EXPECT_EQ(path, resolved);
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(RealPath, FailureIsTheErrnoOfRealpath) {
    const ScopedFault fault(Call::Realpath, ELOOP, Where().Path("/"));
    std::string resolved = "/";
    EXPECT_EQ(-ELOOP, TransferToRealPath(resolved));
    EXPECT_EQ("/", resolved);
}

TEST_F(RealPath, EmptyOrUnterminatedResultIsRefused) {
    for (const auto &[fill, expected] : {std::pair('\0', -EINVAL), std::pair('x', -ENAMETOOLONG)}) {
        const char byte = fill;
        const ScopedHook hook(Call::Realpath, [byte](const CallInfo &call) {
            std::memset(call.data, byte, PATH_MAX);
            return Outcome{reinterpret_cast<long>(call.data), 0};
        });
        std::string resolved = "/";
        EXPECT_EQ(expected, TransferToRealPath(resolved));
        EXPECT_EQ("/", resolved);
    }
}

class SmallFile : public FifoTest {
protected:
    static LogCall Line(std::string message) { return {LOG_TYPE_VELM, LOG_ERR, VELM_CHECK_TAG, std::move(message)}; }

    // The close is made and then reported as failed.
    static ScopedHook FailingClose() {
        return ScopedHook(Call::Close, [](const CallInfo &call) {
            ::close(call.fd);
            return Outcome{-1, EIO};
        });
    }

    std::stringstream out;
};

TEST_F(SmallFile, IsReadWhole) {
    const std::string text = "one\ntwo\n" + std::string(3000, 'x') + "end";
    WriteFile(path, text);
    const LogCalls log;
    out << "before ";
    EXPECT_EQ(0, LoadFile(path, out));
    EXPECT_EQ("before " + text, out.str());
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(SmallFile, IsReadByItsRealPathInChunks) {
    WriteFile(path, std::string(1024, 'x'));
    const std::string link = NewPath("link");
    MakeLink(path, link);
    std::string opened;
    std::vector<std::size_t> sizes;
    const ScopedHook openHook(Call::Open, [&](const CallInfo &call) {
        opened = call.path;
        EXPECT_EQ(O_RDONLY, call.number & O_ACCMODE);
    });
    const ScopedHook readHook(Call::Read, [&](const CallInfo &call) { sizes.push_back(call.size); });
    EXPECT_EQ(0, LoadFile(link, out));
    EXPECT_EQ(std::filesystem::canonical(path), opened);
    EXPECT_THAT(sizes, ElementsAre(1023U, 1023U, 1023U));
    EXPECT_EQ(1024U, out.str().size());
}

TEST_F(SmallFile, TextOfAChunkEndsAtItsFirstZeroByte) {
    std::string text(1500, 'x');
    text[10] = '\0';
    text[1400] = '\0';
    WriteFile(path, text);
    EXPECT_EQ(0, LoadFile(path, out));
    EXPECT_EQ(std::string(10 + 1400 - 1023, 'x'), out.str());
}

TEST_F(SmallFile, ThatIsMissingIsRefused) {
    const LogCalls log;
    EXPECT_EQ(-ENOENT, LoadFile(path, out));
    EXPECT_THAT(log.All(), ElementsAre(Line("Transfer RealPath fail err=-2.")));
}

TEST_F(SmallFile, ThatCannotBeOpenedIsRefused) {
    WriteFile(path, "text");
    const ScopedFault fault(Call::Open, EACCES, Where().Path(path));
    const LogCalls log;
    EXPECT_EQ(-1, LoadFile(path, out));
    EXPECT_THAT(log.All(), ElementsAre(Line("Open Config file " + path + " failed.")));
}

TEST_F(SmallFile, ThatIsEmptyIsRefused) {
    WriteFile(path, "");
    const LogCalls log;
    EXPECT_EQ(-1, LoadFile(path, out));
    EXPECT_EQ("", out.str());
    // The end of a file sets no errno: any may show.
    ASSERT_THAT(log.All(), testing::SizeIs(1));
    const LogCall line = log.All().front();
    EXPECT_THAT(line.message, testing::MatchesRegex("Read Config file fail: ret=0, errno=[0-9]+\\."));
    EXPECT_EQ(Line(line.message), line);
}

TEST_F(SmallFile, FirstReadThatFailsIsReportedWithItsErrno) {
    WriteFile(path, "text");
    const ScopedFault fault(Call::Read, EIO);
    const LogCalls log;
    EXPECT_EQ(-1, LoadFile(path, out));
    EXPECT_EQ("", out.str());
    EXPECT_THAT(log.All(), ElementsAre(Line("Read Config file fail: ret=-1, errno=5.")));
}

TEST_F(SmallFile, LaterReadThatFailsFailsTheLoad) {
    WriteFile(path, std::string(2000, 'x'));
    const ScopedFault fault(Call::Read, EIO, Where().Nth(2));
    const LogCalls log;
    EXPECT_EQ(-1, LoadFile(path, out));
    EXPECT_THAT(log.All(), ElementsAre(Line("Read Config file fail: ret=-1.")));
}

TEST_F(SmallFile, FailedCloseAfterAReadIsOnlyReported) {
    WriteFile(path, "text");
    const ScopedHook close = FailingClose();
    const LogCalls log;
    EXPECT_EQ(0, LoadFile(path, out));
    EXPECT_EQ("text", out.str());
    EXPECT_THAT(log.All(), ElementsAre(Line("Close Config file fail: ret=-1.")));
}

TEST_F(SmallFile, FailedCloseAfterAFailedReadIsReportedToo) {
    WriteFile(path, std::string(2000, 'x'));
    const ScopedHook close = FailingClose();
    const LogCalls log;
    {
        const ScopedFault fault(Call::Read, EIO);
        EXPECT_EQ(-1, LoadFile(path, out));
    }
    {
        const ScopedFault fault(Call::Read, EISDIR, Where().Nth(2));
        EXPECT_EQ(-1, LoadFile(path, out));
    }
    EXPECT_THAT(log.All(),
                ElementsAre(Line("Read Config file fail: ret=-1, errno=5."), Line("Close Config file fail: ret=-1."),
                            Line("Read Config file fail: ret=-1."), Line("Close Config file fail: ret=-1.")));
}

TEST_F(SmallFile, DirectoryIsRefused) {
    const LogCalls log;
    EXPECT_EQ(-1, LoadFile("/", out));
    EXPECT_THAT(log.All(), ElementsAre(Line("Read Config file fail: ret=-1, errno=21.")));
}

} // namespace
