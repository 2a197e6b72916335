// Closing while others send, receive, open and close.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "PipeEnvironment.h"
#include "PipeFixture.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// Starts threads that begin their work together.
class Together {
public:
    ~Together() { Join(); }

    template <typename Work>
    void Start(unsigned delay, Work work) {
        ++expected;
        threads.emplace_back([this, delay, work] {
            ++arrived;
            while (!go) {
                sched_yield();
            }
            for (unsigned i = 0; i < delay; ++i) {
                sched_yield();
            }
            work();
        });
    }

    void Join() {
        while (arrived < expected) {
            sched_yield();
        }
        go = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        threads.clear();
    }

private:
    std::atomic<unsigned> arrived{0};
    unsigned expected = 0;
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
};

// Takes the place of two descriptors the moment that they are closed, like a file that another thread opens: whoever
// still uses one of them afterwards reads or writes this.
class Decoy {
public:
    Decoy(int one, int other)
        : first(one), file(memfd_create("decoy", MFD_CLOEXEC)),
          hook(
              Call::Close,
              [this](const CallInfo &info) {
                  ++(info.fd == first ? firstCloses : secondCloses);
                  dup2(file, info.fd);
                  return std::optional<Outcome>(Outcome{0, 0});
              },
              Where().If([one, other](const CallInfo &info) { return info.fd == one || info.fd == other; }).Always()) {
        EXPECT_EQ(ftruncate(file, SIZE), 0);
    }

    void ExpectUntouched() const {
        EXPECT_EQ(firstCloses, 1);
        EXPECT_EQ(secondCloses, 1);
        EXPECT_EQ(lseek(file, 0, SEEK_CUR), 0) << "read or written after the close";
        EXPECT_EQ(lseek(file, 0, SEEK_END), SIZE);
    }

    // Call it once the hook is gone from the close.
    static void Clear(int one, int other, int file) {
        close(one);
        close(other);
        close(file);
    }

    int File() const { return file; }

private:
    static constexpr off_t SIZE = 65536;

    const int first;
    const int file;
    std::atomic<int> firstCloses{0};
    std::atomic<int> secondCloses{0};
    ScopedHook hook;
};

class PipeCloseStressTest : public PipeTest {
protected:
    static constexpr int FRAMES = 12;

    // The remote's two descriptors, opened without waiting.
    void JoinAsRemote() {
        remoteRead = open(writeFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        remoteWrite = open(readFile.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(remoteRead, 0);
        ASSERT_GE(remoteWrite, 0);
        const std::string frame = RawRequest(1, "stress");
        for (int i = 0; i < FRAMES; ++i) {
            ASSERT_EQ(write(remoteWrite, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        }
    }

    void LeaveAsRemote() {
        close(remoteRead);
        close(remoteWrite);
    }

    // The number that the next descriptor gets.
    static int NextDescriptor() {
        const int next = dup(STDIN_FILENO);
        close(next);
        return next;
    }

    static void SendUntilClosed(const Pipe &pipe) {
        char data[] = "stress";
        int ret = 0;
        do {
            ret = pipe->Send(TarvoRequest{1, data, sizeof(data)}, 0);
            ASSERT_TRUE(ret == 0 || ret == -EAGAIN || ret == -1 || ret == -EBADF) << ret;
        } while (ret == 0 || ret == -EAGAIN);
    }

    int remoteRead = -1;
    int remoteWrite = -1;
};

TEST_F(PipeCloseStressTest, DescriptorsAreClosedOnceAndNotUsedAfterwards) {
    const int rounds = Rounds(300, 150);
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        TarvoAttr attr = Attr(TARVO_MODE_SERVER);
        if (round % 2 == 1) {
            attr.callback = [](int, TarvoRequest *) {};
        }
        const Pipe pipe = MakePipe(attr);
        ASSERT_EQ(pipe->TimedOpen(100), 0);
        JoinAsRemote();
        const int readFd = ReadFd();
        const int writeFd = NextDescriptor();
        ASSERT_TRUE(observer.RunTask());
        ASSERT_EQ(fcntl(writeFd, F_GETFL) & O_ACCMODE, O_WRONLY);
        int file = -1;
        {
            const Decoy decoy(readFd, writeFd);
            file = decoy.File();
            const auto offset = static_cast<unsigned>(round % 7);
            Together threads;
            threads.Start(0, [&] { SendUntilClosed(pipe); });
            threads.Start(0, [&] {
                for (int i = 0; i < FRAMES; ++i) {
                    HandleEvents(pipe, EPOLLIN);
                }
            });
            threads.Start(offset, [&] { pipe->DeInitPipe(); });
            threads.Start(static_cast<unsigned>(round % 5), [&] { HandleEvents(pipe, EPOLLHUP); });
            threads.Join();
            decoy.ExpectUntouched();
        }
        Decoy::Clear(readFd, writeFd, file);
        LeaveAsRemote();
        observer.DropTasks();
        EXPECT_TRUE(OwnFifoFiles().empty());
        log.Clear();
    }
}

TEST_F(PipeCloseStressTest, OpenAndCloseAtOnceLeaveNothingBehind) {
    const int rounds = Rounds(300, 60);
    constexpr int OPENS = 20;
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        std::atomic<int> badCloses{0};
        const ScopedHook close(Call::Close, [&](const CallInfo &info) {
            const int result = ::close(info.fd);
            badCloses += result != 0 ? 1 : 0;
            return std::optional<Outcome>(Outcome{result, result != 0 ? errno : 0});
        });
        const Pipe pipe = MakePipe(Attr(TARVO_MODE_SERVER));
        std::atomic<bool> done{false};
        {
            Together threads;
            threads.Start(0, [&] {
                for (int i = 0; i < OPENS; ++i) {
                    const int ret = pipe->TimedOpen(0);
                    ASSERT_TRUE(ret == 0 || ret == -ECANCELED) << ret;
                }
                done = true;
            });
            for (int closer = 0; closer < 2; ++closer) {
                threads.Start(0, [&] {
                    while (!done) {
                        pipe->DeInitPipe();
                        sched_yield();
                    }
                });
            }
            threads.Start(0, [&] {
                char data[] = "stress";
                while (!done) {
                    static_cast<void>(pipe->Send(TarvoRequest{1, data, sizeof(data)}, 0));
                    HandleEvents(pipe, EPOLLIN);
                    sched_yield();
                }
            });
            threads.Join();
        }
        pipe->DeInitPipe();
        EXPECT_EQ(badCloses, 0);
        EXPECT_EQ(OwnFifoFiles(), std::vector<std::string>());
        EXPECT_EQ(TryCall(pipe), -EPIPE);
        observer.DropTasks();
        log.Clear();
    }
}

} // namespace
} // namespace tarvo_test
