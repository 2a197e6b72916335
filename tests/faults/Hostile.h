// What may stand under a name that an engine uses, each use of each name, and the table of what becomes of it.
#ifndef TARVO_FAULTS_HOSTILE_H
#define TARVO_FAULTS_HOSTILE_H

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "faults/Outside.h"
#include "support/Names.h"

namespace tarvo_test {

constexpr uid_t STRANGER = 61301;
constexpr int SHORT_OPEN_MS = 100;

// The names of one pipe and one server, and the calls of an engine that use them. Opens take no longer than 100 ms.
// Owns: what they have opened. Threads: one. Ends: End().
class Cast {
public:
    Cast() = default;
    virtual ~Cast() = default;
    Cast(const Cast &) = delete;
    Cast &operator=(const Cast &) = delete;

    // A pipe by arrangement, its files made or waited for: a number above 0, or a negated errno.
    virtual int Create() = 0;
    virtual int Join() = 0;
    // 0 or a negated errno.
    virtual int Serve() = 0;
    // As Create(), through a server.
    virtual int Connect() = 0;
    virtual void End() = 0;

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    const std::string writeFile = FifoPath(self, remote);
    const std::string readFile = FifoPath(remote, self);
    const std::string ownServer = FifoDirectory() + self;
    const std::string otherServer = FifoDirectory() + remote;
};

using MakeCast = std::function<std::unique_ptr<Cast>()>;

// The other FIFO of a pipe that is joined, and a reader for the one that is written.
class OtherFiles {
public:
    OtherFiles(const Cast &cast, const std::string &hostile);
    ~OtherFiles();
    OtherFiles(const OtherFiles &) = delete;
    OtherFiles &operator=(const OtherFiles &) = delete;

private:
    int reader = -1;
};

void MakeSocket(const std::string &path);
void ReplaceByLink(const std::string &path, const std::string &target);

// "handle", "0", "−EACCES"
std::string TextOf(int result);

// Runs `body` in a process of its own, since each ends the communication of its process. What failed in it is in its
// exit code, which the text ends with then.
std::string TryInChild(const std::function<std::string()> &body);

// Fails the test when an engine deals with any of the things in another way than the table in docs/SECURITY.md says,
// or touches what is outside of the directory.
void CompareWithKeptTable(const MakeCast &make);

} // namespace tarvo_test

#endif // TARVO_FAULTS_HOSTILE_H
