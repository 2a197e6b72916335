#ifndef TARVO_SYSTEM_SYSTEMTEST_H
#define TARVO_SYSTEM_SYSTEMTEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Names.h"
#include "system/PeerProcess.h"

namespace tarvo_test {

// Base of the tests over real processes: names private to the test, and no FIFO file of a pipe left after it.
class SystemTest : public ::testing::Test {
protected:
    ~SystemTest() override; // looks at the files: the peers of the fixture are gone then
    void SetUp() override;

    // A name that no other test uses at the same time.
    static std::string Name(const std::string &role) { return NameTag() + role; }
    // All files in the FIFO directory of this test's names.
    static std::vector<std::string> Files() { return OwnFifoFiles(); }
    // Returns once neither file of the pipe between the two names exists.
    void AwaitFilesGone(const std::string &one, const std::string &other) const;
    // For a test that kills a process which should have removed its files.
    void FilesMayStay() { filesMayStay_ = true; }

    // The handles of the two ends of a pipe.
    struct Pair {
        int first;
        int second;
    };
    // Opens a pipe by arrangement: `first` creates the files. The two texts add to the commands.
    Pair OpenPair(PeerProcess &first, const std::string &firstName, const std::string &firstMore, PeerProcess &second,
                  const std::string &secondName, const std::string &secondMore) const;

    // Makes `server` serve under the name and checks that it does.
    void Serve(PeerProcess &server, const std::string &name, const std::string &more) const;
    // Connects `client` to the server; `first` is the server's handle and `second` the client's.
    Pair Connect(PeerProcess &server, const std::string &serverName, PeerProcess &client, const std::string &clientName,
                 const std::string &more) const;

    // A call over a pipe at whose other end the callback echoes.
    static void ExpectEcho(PeerProcess &caller, int fd, const std::string &text = "ping");

private:
    bool filesMayStay_ = false;
};

// The words of a command that name the pipe of a handle.
std::string Fd(int fd);

// The words of a command that name a payload of `size` bytes, and its digest.
std::string FillWords(std::size_t size, unsigned seed);
std::string FillDigest(std::size_t size, unsigned seed);

// Whether a call ended, as its event tells, because its pipe does: closed, unknown, broken; closed between the look at
// the descriptor and the write; or 0 without an answer for a call whose pipe was closed between its send and its wait.
bool IsEndOfAPipe(const std::string &event);

// The number after "fd=" in an event.
int HandleIn(const std::string &event);
// The words of a command that name the id in the event of a request.
std::string IdIn(const std::string &request);

} // namespace tarvo_test

#endif // TARVO_SYSTEM_SYSTEMTEST_H
