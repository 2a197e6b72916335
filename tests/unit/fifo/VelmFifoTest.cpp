#include "fifo/velm_fifo.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <functional>

#include "support/AllocFaults.h"
#include "unit/fifo/CallTrace.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class OpenFifoTest : public FifoTest {
protected:
    OpenFifoTest() { EXPECT_EQ(0, ::mkfifo(path.c_str(), 0600)); }
};

TEST_F(OpenFifoTest, OpensWithExactlyTheGivenFlags) {
    for (const int flags : {O_RDONLY | O_NONBLOCK, O_RDONLY | O_NONBLOCK | O_CLOEXEC, O_RDWR, O_RDWR | O_NONBLOCK}) {
        const LogCalls log;
        const CallTrace trace(path);
        const int fd = OpenFifo(path, flags);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(trace.Calls(), (std::vector<std::string>{"realpath NAME", Text("open NAME %#x", unsigned(flags))}));
        struct stat state {};
        EXPECT_EQ(0, ::fstat(fd, &state));
        EXPECT_EQ(StateOf(path).st_ino, state.st_ino);
        EXPECT_EQ(0, ::close(fd));
        EXPECT_THAT(log.All(), IsEmpty());
    }
}

TEST_F(OpenFifoTest, OpensTheRealPath) {
    const std::string link = NewPath("link");
    MakeLink(path, link);
    std::string opened;
    const ScopedHook hook(Call::Open, [&opened](const CallInfo &call) { opened = call.path; });
    const int fd = OpenFifo(link, O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::filesystem::canonical(path), opened);
    ::close(fd);
}

TEST_F(OpenFifoTest, MissingFifoFailsBeforeTheOpen) {
    const std::string missing = NewPath("missing");
    const CallCounter opens(Call::Open, Where().Path(missing));
    const LogCalls log;
    EXPECT_EQ(-ENOENT, OpenFifo(missing, O_RDONLY | O_NONBLOCK));
    EXPECT_EQ(0U, opens.Count());
    EXPECT_THAT(log.All(), ElementsAre(RestrainedLine(VELM_FIFO_TAG,
                                                      "Transfer real path fail, path name=" + missing + ", ret=-2.")));
}

TEST_F(OpenFifoTest, MissingReaderIsSilent) {
    const LogCalls log;
    EXPECT_EQ(-ENXIO, OpenFifo(path, O_WRONLY | O_NONBLOCK));
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(OpenFifoTest, OtherFailuresAreReported) {
    for (const int error : {EACCES, EMFILE, EINTR, ENOENT}) {
        const ScopedFault fault(Call::Open, error, Where().Path(path));
        const LogCalls log;
        EXPECT_EQ(-error, OpenFifo(path, O_RDONLY | O_NONBLOCK));
        EXPECT_THAT(log.All(), ElementsAre(RestrainedLine(VELM_FIFO_TAG, "Open fifo " + path + " fail, fd=-1, errno=" +
                                                                             std::to_string(error) + ".")));
    }
}

// Whatever restoring the cancel state does to errno.
TEST_F(OpenFifoTest, FailureIsThatOfTheOpen) {
    const ScopedFault fault(Call::Open, EMFILE, Where().Path(path));
    const ScopedHook restore(
        Call::PthreadSetcancelstate,
        [](const CallInfo &) {
            return Outcome{0, ENXIO};
        },
        Where().Nth(2));
    EXPECT_EQ(-EMFILE, OpenFifo(path, O_RDONLY | O_NONBLOCK));
    EXPECT_EQ(1U, restore.Hits());
}

TEST_F(OpenFifoTest, CancelStateIsEnabledForTheOpenOnly) {
    for (const int before : {PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_ENABLE}) {
        pthread_setcancelstate(before, nullptr);
        int during = -1;
        const ScopedHook hook(Call::Open,
                              [&during](const CallInfo &) { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &during); });
        EXPECT_EQ(-ENXIO, OpenFifo(path, O_WRONLY | O_NONBLOCK));
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, during);
        int after = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
        EXPECT_EQ(before, after);
    }
}

TEST_F(OpenFifoTest, BlockedOpenCanBeCancelled) {
    const auto routine = [](void *name) -> void * {
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        OpenFifo(*static_cast<const std::string *>(name), O_RDONLY);
        return nullptr;
    };
    const CallCounter opens(Call::Open, Where().Path(path));
    pthread_t thread{};
    std::string name = path;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, routine, &name));
    EXPECT_TRUE(opens.WaitFor(1));
    EXPECT_EQ(0, pthread_cancel(thread));
    void *result = nullptr;
    EXPECT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
}

// Openers poll for a reader every few microseconds.
TEST_F(OpenFifoTest, AllocatesNothing) {
    const AllocFault any(1);
    const int noReader = OpenFifo(path, O_WRONLY | O_NONBLOCK);
    const int fd = OpenFifo(path, O_RDONLY | O_NONBLOCK);
    EXPECT_FALSE(any.Hit());
    EXPECT_EQ(-ENXIO, noReader);
    EXPECT_GE(fd, 0);
    ::close(fd);
}

class OpenPublishedFifoTest : public OpenFifoTest {
protected:
    int Open() const { return OpenPublishedFifo(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC); }

    // Opens while `rival` runs right before the open itself.
    int OpenAgainst(std::function<void()> rival) const {
        const ScopedHook hook(
            Call::Open, [rival = std::move(rival)](const CallInfo &) { rival(); }, Where().Path(path));
        return Open();
    }

    void ReplaceByFile() const {
        ::unlink(path.c_str());
        WriteFile(path, "text");
        ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
    }
};

TEST_F(OpenPublishedFifoTest, OpensTheFifoOfTheNameWithExactlyTheGivenFlags) {
    const LogCalls log;
    int flags = 0;
    const ScopedHook hook(
        Call::Open, [&flags](const CallInfo &call) { flags = call.number; }, Where().Path(path));
    const int fd = Open();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(O_RDONLY | O_NONBLOCK | O_CLOEXEC, flags);
    struct stat state {};
    EXPECT_EQ(0, ::fstat(fd, &state));
    EXPECT_EQ(StateOf(path).st_ino, state.st_ino);
    ::close(fd);
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(OpenPublishedFifoTest, LinkToAFifoIsRefusedUnopened) {
    const std::string fifo = NewPath("target");
    ASSERT_EQ(0, ::rename(path.c_str(), fifo.c_str()));
    MakeLink(fifo, path);
    const CallCounter opens(Call::Open, Where().PathHas(FifoDirectory()));
    const LogCalls log;
    EXPECT_EQ(-EACCES, Open());
    EXPECT_EQ(0U, opens.Count());
    EXPECT_THAT(log.All(), ElementsAre(NotAFifo(0120777)));
}

TEST_F(OpenPublishedFifoTest, EveryRefusalIsReported) {
    ReplaceByFile();
    const LogCalls log;
    EXPECT_EQ(-EACCES, Open());
    EXPECT_EQ(-EACCES, Open());
    EXPECT_THAT(log.All(), ElementsAre(NotAFifo(0100600), NotAFifo(0100600)));
}

TEST_F(OpenPublishedFifoTest, FileThatTakesTheNameBeforeTheOpenIsClosedAgain) {
    const std::size_t descriptors = OpenDescriptors().size();
    const LogCalls log;
    EXPECT_EQ(-EACCES, OpenAgainst([this] { ReplaceByFile(); }));
    EXPECT_THAT(log.All(), ElementsAre(NotAFifo(0100600)));
    EXPECT_EQ(descriptors, OpenDescriptors().size());
}

TEST_F(OpenPublishedFifoTest, LinkThatTakesTheNameBeforeTheOpenIsClosedAgain) {
    const std::string fifo = NewPath("target");
    MakeFifo(fifo);
    const std::size_t descriptors = OpenDescriptors().size();
    const LogCalls log;
    EXPECT_EQ(-EACCES, OpenAgainst([&] {
        ::unlink(path.c_str());
        MakeLink(fifo, path);
    }));
    EXPECT_THAT(log.All(), ElementsAre(NotAFifo(0120777)));
    EXPECT_EQ(descriptors, OpenDescriptors().size());
}

TEST_F(OpenPublishedFifoTest, FifoThatIsReplacedByAFifoMeanwhileIsFine) {
    const LogCalls log;
    const int fd = OpenAgainst([this] {
        ::unlink(path.c_str());
        MakeFifo(path);
    });
    ASSERT_GE(fd, 0);
    ::close(fd);
    EXPECT_THAT(log.All(), IsEmpty());
}

// What is there before the open, and what after it: a FIFO that does not stay for both looks has not come yet.
TEST_F(OpenPublishedFifoTest, FifoThatIsGoneOrAnotherAtTheSecondLookIsNotThere) {
    const std::string target = NewPath("target");
    MakeFifo(target);
    const auto remove = [this] { ::unlink(path.c_str()); };
    const auto replace = [this] {
        ::unlink(path.c_str());
        MakeFifo(path);
    };
    const auto replaceByLink = [&] {
        ::unlink(path.c_str());
        MakeLink(target, path);
    };
    const struct {
        const char *what;
        std::function<void()> beforeOpen;
        std::function<void()> afterOpen;
    } rows[] = {
        {"replaced, then gone", replace, remove},
        {"replaced twice", replace, replace},
        {"a file for a moment", [this] { ReplaceByFile(); }, replace},
        {"a file for a moment, then gone", [this] { ReplaceByFile(); }, remove},
        {"a link for a moment", replaceByLink, replace},
        {"a link for a moment, then gone", replaceByLink, remove},
    };
    const std::size_t descriptors = OpenDescriptors().size();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        replace();
        const LogCalls log;
        const ScopedHook second(
            Call::Lstat, [&](const CallInfo &) { row.afterOpen(); }, Where().Path(path).Nth(2).Times(1));
        EXPECT_EQ(-ENOENT, OpenAgainst(row.beforeOpen));
        EXPECT_EQ(1U, second.Hits());
        EXPECT_THAT(log.All(), IsEmpty());
    }
    EXPECT_EQ(descriptors, OpenDescriptors().size());
}

TEST_F(OpenPublishedFifoTest, FailuresAreThoseOfTheOpen) {
    EXPECT_EQ(-ENXIO, OpenPublishedFifo(path, O_WRONLY | O_NONBLOCK));
    {
        const ScopedFault fault(Call::Open, EMFILE, Where().Path(path));
        EXPECT_EQ(-EMFILE, Open());
    }
    ::unlink(path.c_str());
    const LogCalls log;
    EXPECT_EQ(-ENOENT, Open());
    EXPECT_THAT(log.All(),
                ElementsAre(RestrainedLine(VELM_FIFO_TAG, "Transfer real path fail, path name=" + path + ", ret=-2.")));
}

class FifoFile : public FifoTest {};

TEST_F(FifoFile, IsRecognised) {
    MakeFifo(path);
    const LogCalls log;
    EXPECT_EQ(0, IsFifoFile(path));
    EXPECT_THAT(log.All(), IsEmpty());
}

TEST_F(FifoFile, OtherKindsAreRefused) {
    const std::string fifo = NewPath("target");
    MakeFifo(fifo);
    MakeLink(fifo, path);
    const LogCalls log;
    EXPECT_EQ(-EACCES, IsFifoFile(path));
    ::unlink(fifo.c_str());
    ::unlink(path.c_str());
    WriteFile(path, "text");
    ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
    EXPECT_EQ(-EACCES, IsFifoFile(path));
    EXPECT_THAT(log.All(), ElementsAre(NotAFifo(0120777), NotAFifo(0100600)));
}

TEST_F(FifoFile, MissingFileIsRefused) {
    const LogCalls log;
    EXPECT_EQ(-ENOENT, IsFifoFile(path));
    const ScopedFault fault(Call::Lstat, EACCES, Where().Path(path));
    EXPECT_EQ(-EACCES, IsFifoFile(path));
    EXPECT_THAT(log.All(), ElementsAre(ErrorLine(VELM_FIFO_TAG, "Get file " + path + " state failed, ret=-2."),
                                       ErrorLine(VELM_FIFO_TAG, "Get file " + path + " state failed, ret=-13.")));
}

class EpollSet : public FifoTest {
protected:
    EpollSet() : epfd(::epoll_create1(0)), fd(::eventfd(1, 0)) {}
    ~EpollSet() override {
        ::close(epfd);
        ::close(fd);
    }

    const int epfd;
    const int fd;
};

TEST_F(EpollSet, ReportsTheDataOfAnAddedDescriptor) {
    for (const int data : {0, 7, INT_MAX, -1}) {
        const LogCalls log;
        EXPECT_EQ(0, AddFdToEpoll(epfd, fd, data, EPOLLIN));
        EXPECT_THAT(
            log.All(),
            ElementsAre(InfoLine(VELM_FIFO_TAG, Text("Insert to epoll fd(%d) success: fd = %d, ret = 0.", epfd, fd))));
        epoll_event event{};
        ASSERT_EQ(1, ::epoll_wait(epfd, &event, 1, 0));
        EXPECT_EQ(data, event.data.fd);
        const uint64_t whole = event.data.u64; // a packed structure: no reference to its place
        EXPECT_EQ(static_cast<uint32_t>(data), whole);
        EXPECT_EQ(static_cast<uint32_t>(EPOLLIN), event.events);
        EXPECT_EQ(0, RemoveFdFromEpoll(epfd, fd));
        EXPECT_EQ(InfoLine(VELM_FIFO_TAG, Text("Remove fd success. epoll_fd = %d, fd = %d, ret = 0.", epfd, fd)),
                  log.All().back());
        EXPECT_EQ(0, ::epoll_wait(epfd, &event, 1, 0));
    }
}

TEST_F(EpollSet, GetsTheEventMaskUnchanged) {
    const std::vector<uint32_t> masks = {0, EPOLLIN, EPOLLOUT | EPOLLONESHOT,
                                         EPOLLIN | EPOLLHUP | EPOLLRDHUP | EPOLLET};
    std::vector<uint32_t> seen;
    for (const uint32_t mask : masks) {
        const ScopedHook hook(
            Call::EpollCtl,
            [&seen](const CallInfo &call) { seen.push_back(static_cast<const epoll_event *>(call.data)->events); },
            Where().Always().Number(EPOLL_CTL_ADD));
        EXPECT_EQ(0, AddFdToEpoll(epfd, fd, 1, mask));
        EXPECT_EQ(0, RemoveFdFromEpoll(epfd, fd));
    }
    EXPECT_EQ(masks, seen);
}

TEST_F(EpollSet, RemovesWithoutAnEvent) {
    ASSERT_EQ(0, AddFdToEpoll(epfd, fd, 1, EPOLLIN));
    const ScopedHook hook(Call::EpollCtl, [](const CallInfo &call) {
        EXPECT_EQ(EPOLL_CTL_DEL, call.number);
        EXPECT_EQ(nullptr, call.data);
    });
    EXPECT_EQ(0, RemoveFdFromEpoll(epfd, fd));
    EXPECT_EQ(1U, hook.Hits());
}

TEST_F(EpollSet, FailedAddIsReported) {
    const auto failure = [this](int error) {
        return ErrorLine(VELM_FIFO_TAG, Text("Insert fd=%d to epoll-fd=%d failed, ret=-1, errno=%d.", fd, epfd, error));
    };
    ASSERT_EQ(0, AddFdToEpoll(epfd, fd, 1, EPOLLIN));
    const LogCalls log;
    EXPECT_EQ(-EEXIST, AddFdToEpoll(epfd, fd, 1, EPOLLIN));
    const ScopedFault fault(Call::EpollCtl, ENOSPC);
    EXPECT_EQ(-ENOSPC, AddFdToEpoll(epfd, fd, 1, EPOLLIN));
    EXPECT_THAT(log.All(), ElementsAre(failure(EEXIST), failure(ENOSPC)));
}

TEST_F(EpollSet, FailedRemovalIsReported) {
    const auto failure = [this](int error) {
        return ErrorLine(VELM_FIFO_TAG,
                         Text("Remove fd=%d from epoll-fd=%d failed, ret=-1, errno=%d.", fd, epfd, error));
    };
    const LogCalls log;
    EXPECT_EQ(-ENOENT, RemoveFdFromEpoll(epfd, fd));
    const ScopedFault fault(Call::EpollCtl, ENOMEM);
    EXPECT_EQ(-ENOMEM, RemoveFdFromEpoll(epfd, fd));
    EXPECT_THAT(log.All(), ElementsAre(failure(ENOENT), failure(ENOMEM)));
}

TEST_F(EpollSet, BadDescriptorsAreRefused) {
    EXPECT_EQ(-EBADF, AddFdToEpoll(-1, fd, 1, EPOLLIN));
    EXPECT_EQ(-EBADF, AddFdToEpoll(epfd, -1, 1, EPOLLIN));
    EXPECT_EQ(-EBADF, RemoveFdFromEpoll(-1, fd));
    EXPECT_EQ(-EBADF, RemoveFdFromEpoll(epfd, -1));
}

} // namespace
