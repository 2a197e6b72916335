// Something else than a FIFO of ours stands under a name that the library uses, or takes its place while it works.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <optional>

#include "faults/FaultTable.h"
#include "faults/ManualPages.h"
#include "faults/Outside.h"
#include "faults/Scenes.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/Process.h"
#include "support/Unprivileged.h"

namespace tarvo_test {
namespace {

constexpr uid_t STRANGER = 61301;
constexpr int SHORT_MS = 100;

void MakeSocket(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    close(fd);
}

// Something that can stand under a name.
struct Thing {
    std::string what;
    std::function<void(const std::string &, const Outside &)> put;
};

const std::vector<Thing> &Things() {
    static const auto *const things = new std::vector<Thing>{
        {"symbolic link to a file outside",
         [](const std::string &path, const Outside &outside) {
             EXPECT_EQ(symlink(outside.File().c_str(), path.c_str()), 0);
         }},
        {"symbolic link to a FIFO outside",
         [](const std::string &path, const Outside &outside) {
             EXPECT_EQ(symlink(outside.Fifo().c_str(), path.c_str()), 0);
         }},
        {"symbolic link to nothing",
         [](const std::string &path, const Outside &outside) {
             EXPECT_EQ(symlink(outside.Nothing().c_str(), path.c_str()), 0);
         }},
        {"hard link to a file outside",
         [](const std::string &path, const Outside &outside) {
             EXPECT_EQ(::link(outside.File().c_str(), path.c_str()), 0);
         }},
        {"regular file",
         [](const std::string &path, const Outside &) { close(::open(path.c_str(), O_CREAT | O_WRONLY, 0666)); }},
        {"regular file of a stranger",
         [](const std::string &path, const Outside &) {
             close(::open(path.c_str(), O_CREAT | O_WRONLY, 0666));
             EXPECT_EQ(::chown(path.c_str(), STRANGER, STRANGER), 0);
         }},
        {"FIFO of a stranger, without a reader",
         [](const std::string &path, const Outside &) {
             EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
             EXPECT_EQ(::chown(path.c_str(), STRANGER, STRANGER), 0);
         }},
        {"directory", [](const std::string &path, const Outside &) { EXPECT_EQ(mkdir(path.c_str(), 0777), 0); }},
        {"device", [](const std::string &path,
                      const Outside &) { EXPECT_EQ(mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)), 0); }},
        {"socket", [](const std::string &path, const Outside &) { MakeSocket(path); }},
    };
    return *things;
}

void RemoveThing(const std::string &path) {
    if (rmdir(path.c_str()) != 0) {
        ::unlink(path.c_str());
    }
}

// The names of one pipe and one server, and the calls that use them.
class Cast {
public:
    int Create(Callback callback = {}) const {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER, std::move(callback));
        return TarvoOpen(&attr);
    }
    int Join(int timeout = SHORT_MS) const {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
        attr.timeout = timeout;
        return TarvoOpen(&attr);
    }
    int JoinShortly() const { return Join(); }
    int Serve() const {
        TarvoServerAttr attr;
        attr.selfName = self.c_str();
        return TarvoCreateServer(&attr);
    }
    int Connect() const {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
        attr.timeout = SHORT_MS;
        return TarvoCreateClient(&attr);
    }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    const std::string writeFile = FifoPath(self, remote);
    const std::string readFile = FifoPath(remote, self);
    const std::string ownServer = FifoDirectory() + self;
    const std::string otherServer = FifoDirectory() + remote;
};

// One use of one name.
struct Use {
    std::string what;
    const std::string Cast::*name;
    std::function<int(const Cast &)> call;
    bool replaces; // what stands there gives way to a FIFO of its own
    bool whilePublished = false;
};

const std::vector<Use> &Uses() {
    static const auto *const uses = new std::vector<Use>{
        {"`TarvoOpen` creates its write FIFO", &Cast::writeFile, [](const Cast &cast) { return cast.Create(); }, true},
        {"`TarvoOpen` creates its read FIFO", &Cast::readFile, [](const Cast &cast) { return cast.Create(); }, true},
        {"the same, when it appears just before the publication", &Cast::readFile,
         [](const Cast &cast) { return cast.Create(); }, true, true},
        {"`TarvoOpen` joins by its write FIFO", &Cast::writeFile, [](const Cast &cast) { return cast.Join(); }, false},
        {"`TarvoOpen` joins by its read FIFO", &Cast::readFile, [](const Cast &cast) { return cast.Join(); }, false},
        {"`TarvoCreateServer`", &Cast::ownServer, [](const Cast &cast) { return cast.Serve(); }, true},
        {"`TarvoCreateClient`", &Cast::otherServer, [](const Cast &cast) { return cast.Connect(); }, false},
    };
    return *uses;
}

ino_t InodeOf(const std::string &path) {
    struct stat state {};
    return ::lstat(path.c_str(), &state) == 0 ? state.st_ino : 0;
}

// What became of the thing.
std::string FateOf(ino_t before, const std::string &path) {
    const ino_t now = InodeOf(path);
    if (now == before) {
        return "stays";
    }
    return now == 0 ? "removed" : "replaced";
}

// The other FIFO of a pipe that is joined, and a reader for the one that is written.
class OtherFiles {
public:
    OtherFiles(const Cast &cast, const std::string &hostile) {
        for (const std::string &file : {cast.writeFile, cast.readFile}) {
            if (file != hostile) {
                EXPECT_EQ(::mkfifo(file.c_str(), 0660), 0);
            }
        }
        if (cast.writeFile != hostile) {
            reader = ::open(cast.writeFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        }
    }
    ~OtherFiles() { close(reader); }
    OtherFiles(const OtherFiles &) = delete;
    OtherFiles &operator=(const OtherFiles &) = delete;

private:
    int reader = -1;
};

std::string TextOf(int result) {
    if (result < 0) {
        return "−" + NameOfErrno(-result);
    }
    return result > 0 ? "handle" : "0";
}

// Runs one case in this process; its row entry.
std::string Try(const Use &use, const Thing &thing) {
    const Outside outside;
    const Cast cast;
    const std::string &name = cast.*use.name;
    ino_t inode = 0;
    const auto put = [&] {
        thing.put(name, outside);
        inode = InodeOf(name);
    };
    std::string text;
    {
        std::optional<ScopedHook> publication;
        std::optional<OtherFiles> others;
        if (use.whilePublished) {
            publication.emplace(
                Call::Link, [&](const CallInfo &) { put(); }, Where().PathHas(name));
        } else {
            put();
        }
        if (!use.replaces) {
            others.emplace(cast, name);
        }
        text = TextOf(use.call(cast)) + ", ";
        text += FateOf(inode, name);
    }
    EXPECT_EQ(outside.Touched(), "");
    // Once an operator has removed what is left, the name works.
    RemoveThing(name);
    if (use.replaces) {
        const int again = use.call(cast);
        EXPECT_TRUE(again >= 0 || again == -EEXIST) << again;
    }
    TarvoExceptionHandler(SIGTERM);
    TarvoCfgFinishServer();
    EXPECT_EQ(outside.Touched(), "");
    RemoveOwnFifoFiles();
    return text;
}

// In a process of its own, since each ends the communication of its process. What failed in it is in its exit code.
std::string TryInChild(const std::function<std::string()> &body) {
    ChildProcess child([&](Channel &parent) {
        std::string text;
        {
            const ScopedLeakCheck leaks;
            text = body();
        }
        return parent.Send(text) ? 0 : 1;
    });
    const std::string text = child.ToChild().Receive().value_or("no result");
    const int code = child.Wait();
    return code == 0 ? text : text + ", exit code " + std::to_string(code);
}

class HostileDirectory : public testing::Test {
protected:
    void SetUp() override { TARVO_SKIP_UNLESS_ROOT(); }
};

TEST_F(HostileDirectory, WhateverStandsUnderANameIsReplacedOrRefusedAndNothingOutsideIsTouched) {
    std::string rows = "| | what stands there | result, and what becomes of it |\n|---|---|---|\n";
    bool failed = false;
    for (const Use &use : Uses()) {
        std::map<std::string, std::string> things; // by result
        for (const Thing &thing : Things()) {
            const std::string result = TryInChild([&] { return Try(use, thing); });
            failed = failed || result.find("exit") != std::string::npos;
            std::string &list = things[result];
            list += (list.empty() ? "" : "; ") + thing.what;
        }
        for (const auto &[result, list] : things) {
            rows += "| " + use.what + " | " + list + " | " + result + " |\n";
        }
    }
    ASSERT_FALSE(failed) << rows;
    CompareWithKept("What stands under a name", rows, TARVO_SECURITY_KEPT);
}

void ReplaceByLink(const std::string &path, const std::string &target) {
    ::unlink(path.c_str());
    EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0);
}

TEST_F(HostileDirectory, GroupOfAFileOutsideStaysWhenAnAdoptedFifoBecomesALink) {
    EXPECT_EQ(TryInChild([] {
                  const Outside outside;
                  const Cast cast;
                  std::string result;
                  {
                      const ScopedHook published(
                          Call::Link, [&](const CallInfo &) { EXPECT_EQ(::mkfifo(cast.readFile.c_str(), 0660), 0); },
                          Where().PathHas(cast.readFile));
                      const ScopedHook swap(
                          Call::Chown, [&](const CallInfo &) { ReplaceByLink(cast.readFile, outside.File()); },
                          Where().If([&](const CallInfo &info) { return cast.readFile == info.path; }));
                      TarvoAttr attr = MakeAttr(cast.self, cast.remote, TARVO_MODE_SERVER);
                      attr.gid = STRANGER;
                      result = TextOf(TarvoOpen(&attr));
                      EXPECT_EQ(swap.Hits(), 1U);
                  }
                  EXPECT_EQ(outside.Touched(), "");
                  EXPECT_GT(cast.Create(), 0);
                  TarvoCfgFinishServer();
                  return result;
              }),
              "−EACCES");
}

// Between the look at the name and the opening of it, a link takes the place of a FIFO.
std::string SwapAtOpen(const std::string Cast::*name, int (Cast::*call)() const) {
    const Outside outside;
    const Cast cast;
    const int reader = ::open(outside.Fifo().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string results;
    for (const std::string &target : {outside.File(), outside.Fifo()}) {
        RemoveOwnFifoFiles();
        EXPECT_EQ(::mkfifo((cast.*name).c_str(), 0660), 0);
        const OtherFiles others(cast, cast.*name);
        const ScopedHook swap(
            Call::Open, [&](const CallInfo &) { ReplaceByLink(cast.*name, target); }, Where().Path(cast.*name));
        results += TextOf((cast.*call)()) + " ";
        EXPECT_EQ(swap.Hits(), 1U);
    }
    char byte = 0;
    EXPECT_LE(::read(reader, &byte, 1), 0);
    close(reader);
    EXPECT_EQ(outside.Touched(true), "");
    TarvoCfgFinishServer();
    EXPECT_EQ(outside.Touched(true), "");
    RemoveOwnFifoFiles();
    return results;
}

TEST_F(HostileDirectory, NothingIsWrittenThroughALinkThatTakesThePlaceOfAFifo) {
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::writeFile, &Cast::JoinShortly); }), "−EACCES −EACCES ");
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::readFile, &Cast::JoinShortly); }), "−EACCES −EACCES ");
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::otherServer, &Cast::Connect); }), "−EACCES −EACCES ");
}

TEST_F(HostileDirectory, LinksInThePlaceOfFilesToRemoveAreRemovedAndNotFollowed) {
    for (const bool emergency : {false, true}) {
        EXPECT_EQ(TryInChild([emergency] {
                      const Outside outside;
                      const Cast cast;
                      const int fd = cast.Create();
                      EXPECT_EQ(cast.Serve(), 0);
                      ReplaceByLink(cast.writeFile, outside.File());
                      ReplaceByLink(cast.readFile, outside.Fifo());
                      ReplaceByLink(cast.ownServer, outside.File());
                      if (emergency) {
                          TarvoExceptionHandler(SIGTERM);
                          EXPECT_TRUE(OwnFifoFiles().empty());
                      }
                      EXPECT_EQ(TarvoClosePipe(fd), 0);
                      EXPECT_EQ(OwnFifoFiles().size(), emergency ? 0U : 1U);
                      TarvoExceptionHandler(SIGTERM);
                      TarvoCfgFinishServer();
                      return outside.Touched();
                  }),
                  "");
    }
}

} // namespace
} // namespace tarvo_test
