#include "faults/Hostile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <vector>

#include "faults/FaultTable.h"
#include "faults/ManualPages.h"
#include "support/Faults.h"
#include "support/LeakCheck.h"
#include "support/Process.h"

namespace tarvo_test {
namespace {

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

// One use of one name.
struct Use {
    std::string what;
    const std::string Cast::*name;
    int (Cast::*call)();
    bool replaces; // what stands there gives way to a FIFO of its own
    bool whilePublished = false;
};

const std::vector<Use> &Uses() {
    static const auto *const uses = new std::vector<Use>{
        {"`TarvoOpen` creates its write FIFO", &Cast::writeFile, &Cast::Create, true},
        {"`TarvoOpen` creates its read FIFO", &Cast::readFile, &Cast::Create, true},
        {"the same, when it appears just before the publication", &Cast::readFile, &Cast::Create, true, true},
        {"`TarvoOpen` joins by its write FIFO", &Cast::writeFile, &Cast::Join, false},
        {"`TarvoOpen` joins by its read FIFO", &Cast::readFile, &Cast::Join, false},
        {"`TarvoCreateServer`", &Cast::ownServer, &Cast::Serve, true},
        {"`TarvoCreateClient`", &Cast::otherServer, &Cast::Connect, false},
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

// Whether anything but a FIFO is opened under a name: of a device even that may have consequences.
class WatchedOpens {
public:
    explicit WatchedOpens(const std::string &name)
        : opens(
              Call::Open,
              [this, name](const CallInfo &) {
                  struct stat state {};
                  wrong = wrong || (::lstat(name.c_str(), &state) == 0 && !S_ISFIFO(state.st_mode));
              },
              Where().Always().If([name](const CallInfo &info) { return name == info.path; })) {}
    ~WatchedOpens() { EXPECT_FALSE(wrong) << "what is no FIFO was opened"; }
    WatchedOpens(const WatchedOpens &) = delete;
    WatchedOpens &operator=(const WatchedOpens &) = delete;

private:
    bool wrong = false;
    const ScopedHook opens;
};

// Runs one case in this process; its row entry.
std::string Try(const MakeCast &make, const Use &use, const Thing &thing) {
    const Outside outside;
    const std::unique_ptr<Cast> made = make();
    Cast &cast = *made;
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
        {
            const WatchedOpens opens(name);
            text = TextOf((cast.*use.call)()) + ", ";
        }
        text += FateOf(inode, name);
    }
    EXPECT_EQ(outside.Touched(), "");
    // Once an operator has removed what is left, the name works.
    RemoveThing(name);
    if (use.replaces) {
        const int again = (cast.*use.call)();
        EXPECT_TRUE(again >= 0 || again == -EEXIST) << again;
    }
    cast.End();
    EXPECT_EQ(outside.Touched(), "");
    RemoveOwnFifoFiles();
    return text;
}

} // namespace

OtherFiles::OtherFiles(const Cast &cast, const std::string &hostile) {
    for (const std::string &file : {cast.writeFile, cast.readFile}) {
        if (file != hostile) {
            EXPECT_EQ(::mkfifo(file.c_str(), 0660), 0);
        }
    }
    if (cast.writeFile != hostile) {
        reader = ::open(cast.writeFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
}

OtherFiles::~OtherFiles() { close(reader); }

void MakeSocket(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    close(fd);
}

void ReplaceByLink(const std::string &path, const std::string &target) {
    ::unlink(path.c_str());
    EXPECT_EQ(symlink(target.c_str(), path.c_str()), 0);
}

std::string TextOf(int result) {
    if (result < 0) {
        return "−" + NameOfErrno(-result);
    }
    return result > 0 ? "handle" : "0";
}

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

void CompareWithKeptTable(const MakeCast &make) {
    std::string rows = "| | what stands there | result, and what becomes of it |\n|---|---|---|\n";
    bool failed = false;
    for (const Use &use : Uses()) {
        std::map<std::string, std::string> things; // by result
        for (const Thing &thing : Things()) {
            const std::string result = TryInChild([&] { return Try(make, use, thing); });
            failed = failed || result.find("exit") != std::string::npos;
            std::string &list = things[result];
            list += (list.empty() ? "" : "; ") + thing.what;
        }
        for (const auto &[result, list] : things) {
            rows += "| " + use.what + " | " + list + " | " + result + " |\n";
        }
    }
    ASSERT_FALSE(failed) << rows;
    CompareWithKept("What stands under a name", rows, "SECURITY.md");
}

} // namespace tarvo_test
