// A program that the process becomes by exec has none of the library's descriptors.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "ApiFixture.h"
#include "support/Process.h"

namespace tarvo_test {
namespace {

// What `ls` finds open when the calling process becomes it, as "number -> what it is".
[[noreturn]] void ListDescriptors(int outputFd) {
    dup2(outputFd, STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", "for fd in /proc/$$/fd/*; do echo \"${fd##*/} $(readlink $fd)\"; done", nullptr);
    _exit(127);
}

std::string ReadToEnd(int fd) {
    std::string text;
    char block[4096];
    for (ssize_t size = read(fd, block, sizeof(block)); size > 0; size = read(fd, block, sizeof(block))) {
        text.append(block, static_cast<std::size_t>(size));
    }
    return text;
}

// The lines that tell of a FIFO of ours, an epoll set or an event counter.
std::vector<std::string> Inherited(const std::string &listing) {
    std::vector<std::string> found;
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("anon_inode") != std::string::npos || line.find("/dev/shm/") != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

TEST(ExecTest, ProgramInheritsNoDescriptorOfTheLibrary) {
    FifoDirectory();
    int listing[2];
    ASSERT_EQ(pipe2(listing, O_CLOEXEC), 0);
    ChildProcess child([&](Channel &) -> int {
        const std::string served = UniqueName("server");
        EXPECT_EQ(CreateServer(served, Echo), 0);
        static const PipePair pair(Echo, Echo);
        EXPECT_EQ(Ask(pair.far, "hello"), "hello");
        const std::string self = UniqueName("self");
        EXPECT_EQ(Ask(CreateClient(self, served), "hello"), "hello");
        // Two of the server, two ends each of four pipes, the epoll sets of the server and the receive thread, and the
        // counter that stops the latter.
        int open = 0;
        for (const auto &entry : OpenDescriptors()) {
            open += Inherited(entry.second).empty() ? 0 : 1;
        }
        EXPECT_GE(open, 2 + 8 + 3);
        if (testing::Test::HasFailure()) {
            return 1;
        }
        ListDescriptors(listing[1]);
    });
    close(listing[1]);
    const std::string text = ReadToEnd(listing[0]);
    close(listing[0]);
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_THAT(text, testing::HasSubstr("1 pipe:")) << "the listing itself goes through there";
    EXPECT_THAT(Inherited(text), testing::IsEmpty()) << text;
    RemoveOwnFifoFiles();
}

} // namespace
} // namespace tarvo_test
