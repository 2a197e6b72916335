// What another process does to the final name of a FIFO between the steps of its creation.
#include <cerrno>
#include <functional>

#include "fifo/velm_fifo.h"
#include "unit/fifo/CallTrace.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

constexpr char FILE_TAG[] = "check_file_attr";

class PublicationRace : public FifoTest {
protected:
    // Creates the FIFO while `rival` runs right before it is published.
    int CreateAgainst(std::function<void()> rival) {
        const ScopedHook hook(Call::Link, [rival = std::move(rival)](const CallInfo &) { rival(); });
        return CreateFifo(path, gid, -1, TARVO_DOMAIN_LOCAL, "");
    }

    int CreateAgainstAFile() {
        return CreateAgainst([this] {
            WriteFile(path, "text");
            ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
        });
    }

    LogCall NoFifo() const { return ErrorLine(VELM_FIFO_TAG, "Existing file " + path + " is not fifo file."); }
    LogCall NoState() const { return ErrorLine(VELM_FIFO_TAG, "Get file " + path + " state failed, ret=-2."); }
    LogCall Failure(const CallTrace &trace, int ret) const {
        return ErrorLine(VELM_FIFO_TAG, Text("Link tmp fifo to real fifo failed tmpfifo=%s, realfifo=%s ret=%d.",
                                             trace.TempName().c_str(), path.c_str(), ret));
    }

    const uint32_t gid = ::geteuid() == 0 ? 4711 : ::getegid();
};

TEST_F(PublicationRace, RivalsFifoIsAdopted) {
    ino_t rivals = 0;
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(0, CreateAgainst([&] {
                  MakeFifo(path);
                  rivals = StateOf(path).st_ino;
              }));
    const std::string group = std::to_string(gid);
    EXPECT_THAT(trace.Calls(),
                ElementsAre("access NAME", "mkfifo TEMP 660", "chmod TEMP 660", "chown TEMP -1:" + group,
                            "link TEMP NAME", "unlink TEMP", "lstat NAME", "lstat NAME", "chown NAME -1:" + group));
    const struct stat state = StateOf(path);
    EXPECT_EQ(rivals, state.st_ino);
    EXPECT_EQ(gid, state.st_gid);
    EXPECT_EQ(0600U, state.st_mode & PERMISSION_BITS);
    EXPECT_THAT(log.UpTo(LOG_NOTICE), IsEmpty());
    EXPECT_EQ(InfoLine(VELM_FIFO_TAG, "Fifo file " + path + " already exists."), log.All().back());
    EXPECT_THAT(OwnFifoFiles(), testing::SizeIs(1));
}

TEST_F(PublicationRace, AdoptedFifoWhoseGroupStaysIsOnlyNoted) {
    const ScopedFault fault(Call::Chown, EPERM, Where().Nth(2));
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(0, CreateAgainst([&] { MakeFifo(path); }));
    EXPECT_EQ(InfoLine(VELM_FIFO_TAG, Text("Changes fifo %s's gid to %u, ret=1.", trace.TempName().c_str(), gid)),
              log.All().back());
    EXPECT_TRUE(Exists(path));
}

TEST_F(PublicationRace, RegularFileIsRefusedAndRemoved) {
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(-EACCES, CreateAgainstAFile());
    EXPECT_THAT(log.UpTo(LOG_NOTICE), ElementsAre(NotAFifo(0100640), NoFifo(), Failure(trace, -EACCES)));
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(PublicationRace, LinkIsRefusedAndRemovedWhereverItPoints) {
    const std::string fifo = NewPath("target");
    MakeFifo(fifo);
    for (const std::string &target : {fifo, std::string("/"), std::string("/nowhere")}) {
        const LogCalls log;
        const CallTrace trace(path);
        EXPECT_EQ(-EINVAL, CreateAgainst([&] { MakeLink(target, path); }));
        EXPECT_THAT(log.UpTo(LOG_NOTICE),
                    ElementsAre(NotAFifo(0120777), ErrorLine(FILE_TAG, "File " + path + " is a symbolic link."),
                                ErrorLine(VELM_FIFO_TAG, "Fifo file " + path + " is a symbolic link."),
                                Failure(trace, -EINVAL)));
        EXPECT_EQ("unlink NAME", trace.Calls().back());
        EXPECT_FALSE(Exists(path));
    }
    EXPECT_TRUE(Exists(fifo));
    ::unlink(fifo.c_str());
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(PublicationRace, DirectoryIsRefusedAndStays) {
    const LogCalls log;
    EXPECT_EQ(-EACCES, CreateAgainst([&] { ASSERT_EQ(0, ::mkdir(path.c_str(), 0700)); }));
    EXPECT_THAT(OwnFifoFiles(), testing::SizeIs(1));
    EXPECT_EQ(0, ::rmdir(path.c_str()));
}

TEST_F(PublicationRace, FifoThatVanishesAgainIsRefused) {
    const ScopedFault fault(Call::Link, EEXIST);
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(-EACCES, CreateFifo(path, gid, -1, TARVO_DOMAIN_LOCAL, ""));
    EXPECT_THAT(log.UpTo(LOG_NOTICE), IsSupersetOf({NoState(), NoFifo(), Failure(trace, -EACCES)}));
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

TEST_F(PublicationRace, FileThatVanishesAgainIsReportedAsNoFifoOnly) {
    const ScopedFault fault(Call::Link, EEXIST);
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(-EACCES, CreateFifo(path, gid, -1, TARVO_DOMAIN_LOCAL, ""));
    EXPECT_THAT(log.UpTo(LOG_NOTICE), ElementsAre(NoState(), NoFifo(), Failure(trace, -EACCES)));
}

TEST_F(PublicationRace, FileThatVanishesAfterTheFirstLookIsReportedAsNoFifoOnly) {
    const ScopedHook vanish(
        Call::Lstat, [this](const CallInfo &) { ::unlink(path.c_str()); }, Where().Path(path).Nth(2));
    const LogCalls log;
    const CallTrace trace(path);
    EXPECT_EQ(-EACCES, CreateAgainstAFile());
    EXPECT_THAT(log.UpTo(LOG_NOTICE), ElementsAre(NotAFifo(0100640), NoFifo(), Failure(trace, -EACCES)));
}

TEST_F(PublicationRace, FifoWhoseStateCannotBeReadIsRefused) {
    const struct {
        unsigned failing;
        int result;
        std::vector<std::string> messages;
    } rows[] = {
        {1, -EACCES, {"Get file " + path + " state failed, ret=-5.", "Existing file " + path + " is not fifo file."}},
        {2,
         -EINVAL,
         {"Get the state of file " + path + " failed, ret=-5.", "Fifo file " + path + " is a symbolic link."}},
    };
    for (const auto &row : rows) {
        const ScopedFault fault(Call::Lstat, EIO, Where().Path(path).Nth(row.failing));
        const LogCalls log;
        EXPECT_EQ(row.result, CreateAgainst([&] { MakeFifo(path); }));
        std::vector<std::string> messages;
        for (const LogCall &call : log.UpTo(LOG_ERR)) {
            messages.push_back(call.message);
        }
        messages.pop_back();
        EXPECT_THAT(messages, ElementsAreArray(row.messages));
        EXPECT_THAT(OwnFifoFiles(), IsEmpty());
    }
}

TEST_F(PublicationRace, FileInTheWayOfAFailedPublicationIsRemoved) {
    const ScopedFault fault(Call::Link, ENOSPC);
    EXPECT_EQ(-ENOSPC, CreateAgainst([&] { WriteFile(path, "text"); }));
    EXPECT_THAT(OwnFifoFiles(), IsEmpty());
}

} // namespace
