#include "system/SystemTest.h"

#include <unistd.h>

#include <cerrno>

#include "support/FifoWatch.h"
#include "support/Names.h"
#include "system/Payload.h"

namespace tarvo_test {

void SystemTest::SetUp() {
    ASSERT_EQ(access(FifoDirectory().c_str(), W_OK), 0) << FifoDirectory() << " must exist and be writable";
}

SystemTest::~SystemTest() {
    for (const std::string &file : Files()) {
        // A server's own file outlives the server; those of a pipe do not outlive the pipe.
        if (file.find("__to__") != std::string::npos && !filesMayStay_) {
            ADD_FAILURE() << "left behind: " << file;
        }
    }
    RemoveOwnFifoFiles();
}

void SystemTest::AwaitFilesGone(const std::string &one, const std::string &other) const {
    AwaitFifoDirectory("files of " + one + " and " + other + " gone", [&] {
        return access(FifoPath(one, other).c_str(), F_OK) != 0 && access(FifoPath(other, one).c_str(), F_OK) != 0;
    });
}

SystemTest::Pair SystemTest::OpenPair(PeerProcess &first, const std::string &firstName, const std::string &firstMore,
                                      PeerProcess &second, const std::string &secondName,
                                      const std::string &secondMore) const {
    Pair pair = {};
    pair.first =
        first.AskInt("open mode=1 timeout=10000 self=" + firstName + " target=" + secondName + " " + firstMore);
    pair.second =
        second.AskInt("open mode=0 timeout=10000 self=" + secondName + " target=" + firstName + " " + secondMore);
    EXPECT_GT(pair.first, 0);
    EXPECT_GT(pair.second, 0);
    return pair;
}

void SystemTest::Serve(PeerProcess &server, const std::string &name, const std::string &more) const {
    ASSERT_EQ(server.AskInt("serve self=" + name + " " + more), 0);
}

SystemTest::Pair SystemTest::Connect(PeerProcess &server, const std::string &serverName, PeerProcess &client,
                                     const std::string &clientName, const std::string &more) const {
    Pair pair = {};
    pair.second = client.AskInt("client timeout=10000 target=" + serverName + " self=" + clientName + " " + more);
    EXPECT_GT(pair.second, 0);
    const std::string event = server.Await("client");
    EXPECT_EQ(event.substr(event.find("name=")), "name=" + clientName + "_" + std::to_string(client.Pid()));
    pair.first = HandleIn(event);
    return pair;
}

void SystemTest::ExpectEcho(PeerProcess &caller, int fd, const std::string &text) {
    EXPECT_EQ(caller.Ask("call text timeout=20000 data=" + text + Fd(fd)), "0 " + text);
}

std::string Fd(int fd) { return " fd=" + std::to_string(fd) + " "; }

std::string FillWords(std::size_t size, unsigned seed) {
    return "fill=" + std::to_string(size) + " seed=" + std::to_string(seed);
}

std::string FillDigest(std::size_t size, unsigned seed) { return Digest(Fill(size, seed)); }

bool IsEndOfAPipe(const std::string &event) {
    const std::string result = event.substr(event.find("result=") + 7);
    return result == "-1" || result == std::to_string(-ENOENT) || result == std::to_string(-EPIPE) ||
           result == std::to_string(-EBADF) || result == "0";
}

int HandleIn(const std::string &event) {
    const std::size_t at = event.find("fd=");
    return at == std::string::npos ? -1 : std::stoi(event.substr(at + 3));
}

std::string IdIn(const std::string &request) {
    return request.substr(request.find("id="), request.rfind(' ') - request.find("id="));
}

} // namespace tarvo_test
