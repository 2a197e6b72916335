// Labelling in full: with the switch on, a planned libselinux and both domains.
#include "fifo/fifo_label.h"

#include <cerrno>
#include <optional>

#include "fifo/security_context.h"
#include "fifo/velm_fifo.h"
#include "unit/fifo/CallTrace.h"
#include "unit/fifo/FakeSelinux.h"
#include "unit/fifo/FifoTest.h"
#include "unit/fifo/Switches.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr mode_t READABLE = S_IFDIR | 0755;

LogCall Info(std::string message) { return InfoLine(VELM_FIFO_TAG, std::move(message)); }
LogCall Error(std::string message) { return ErrorLine(VELM_FIFO_TAG, std::move(message)); }
LogCall Warning(std::string message) { return {LOG_TYPE_TARVO, LOG_WARNING, VELM_FIFO_TAG, std::move(message)}; }

class FifoLabel : public FifoTest {
protected:
    FifoLabel() {
        selinux = FakeSelinux();
        selinux.context = "peer_u:peer_r:peer_t:s0";
        switches = Switches();
    }
    ~FifoLabel() override {
        EXPECT_THAT(selinux.outstanding, IsEmpty());
        EXPECT_EQ(0, selinux.strayReleases);
    }

    // The lines of labelling "/f"; `more` follows the announcements of the flow.
    static void ExpectSingle(const LogCalls &log, int host, int pid, const std::string &con,
                             std::vector<LogCall> more) {
        std::vector<LogCall> lines = {
            Info("velm_fifo: single domain restore context."),
            Info(Text("[single domain] resorecon, access contexts for /f, curHostName is %d, pid is %d, context is %s.",
                      host, pid, con.c_str())),
            Info(Text("[single domain] TryResorecon enter, inName=/f, targetPid=%d. targetCon=%s", pid, con.c_str()))};
        lines.insert(lines.end(), more.begin(), more.end());
        EXPECT_THAT(log.All(), ElementsAreArray(lines));
    }

    static void ExpectCross(const LogCalls &log, int host, const std::string &con, std::vector<LogCall> more) {
        std::vector<LogCall> lines = {
            Info("velm_fifo: cross domain restore context."),
            Info(Text("[cross domain] TryResorecon, access contexts for /f, curHostName is %d, targetCon is %s", host,
                      con.c_str()))};
        lines.insert(lines.end(), more.begin(), more.end());
        EXPECT_THAT(log.All(), ElementsAreArray(lines));
    }

    // What lstat tells of the policy's contexts: a mode, or a negated errno.
    void SetContexts(int modeOrError) { contexts = modeOrError; }

    FakeSelinux &selinux = Selinux();
    Switches &switches = TheSwitches();

private:
    int contexts = READABLE;
    const ScopedHook hook{Call::Lstat,
                          [this](const CallInfo &call) {
                              if (contexts < 0) {
                                  return Outcome{-1, -contexts};
                              }
                              static_cast<struct stat *>(call.data)->st_mode = static_cast<mode_t>(contexts);
                              return Outcome{0, 0};
                          },
                          Where().Always().Path("/etc/selinux/targeted/contexts/files/")};
};

using SingleDomain = FifoLabel;

TEST_F(SingleDomain, IsTheLocalOneAndThatOfTheHost) {
    for (const int host : {1, 2}) {
        switches.hostName = host;
        for (const TarvoDomain domain : {TARVO_DOMAIN_LOCAL, static_cast<TarvoDomain>(host)}) {
            const LogCalls log;
            LabelFifo("/f", -1, domain, "u:r:t:s");
            ExpectSingle(log, host, -1, "u:r:t:s", {});
        }
    }
}

TEST_F(SingleDomain, TargetContextIsSet) {
    for (const int pid : {-1, 0, 42}) {
        selinux.calls.clear();
        const LogCalls log;
        LabelFifo("/f", pid, TARVO_DOMAIN_LOCAL, "u:r:t:s");
        EXPECT_THAT(selinux.calls, ElementsAre("setfilecon /f u:r:t:s"));
        ExpectSingle(log, 1, pid, "u:r:t:s", {});
    }
}

TEST_F(SingleDomain, TargetContextThatCannotBeSetIsReported) {
    for (const int result : {-1, 1}) {
        selinux.result = result;
        const LogCalls log;
        LabelFifo("/f", 42, TARVO_DOMAIN_LOCAL, "u:r:t:s");
        ExpectSingle(
            log, 1, 42, "u:r:t:s",
            {Error(Text("[single domain] The ret of restorecon for file /f is %d, targetCon is u:r:t:s", result))});
    }
}

TEST_F(SingleDomain, WithoutATargetContextThePeersIsSet) {
    for (const int pid : {0, 42}) {
        selinux.calls.clear();
        const LogCalls log;
        LabelFifo("/f", pid, TARVO_DOMAIN_DP, "");
        EXPECT_THAT(selinux.calls, ElementsAre(Text("getpidcon %d", pid), "setfilecon /f peer_u:peer_r:peer_t:s0"));
        ExpectSingle(log, 1, pid, "", {});
    }
}

TEST_F(SingleDomain, PeersContextThatCannotBeSetIsReportedAndReleased) {
    selinux.result = -1;
    const LogCalls log;
    LabelFifo("/f", 42, TARVO_DOMAIN_LOCAL, "");
    ExpectSingle(log, 1, 42, "",
                 {Error("[single domain] The ret of restorecon for file /f is -1, pipeContext is "
                        "peer_u:peer_r:peer_t:s0")});
}

TEST_F(SingleDomain, PeerWithoutAContextIsReported) {
    const struct {
        int result;
        std::optional<std::string> context;
    } rows[] = {{-1, std::nullopt}, {0, std::nullopt}};
    for (const auto &row : rows) {
        selinux.calls.clear();
        selinux.getResult = row.result;
        selinux.context = row.context;
        const LogCalls log;
        LabelFifo("/f", 42, TARVO_DOMAIN_LOCAL, "");
        EXPECT_THAT(selinux.calls, ElementsAre("getpidcon 42"));
        ExpectSingle(log, 1, 42, "",
                     {{LOG_TYPE_VELM, LOG_ERR, VELM_FIFO_TAG,
                       "[single domain] Get pid context failed, inName=/f, targetPid=42."}});
    }
}

TEST_F(SingleDomain, OffStopsFirst) {
    for (const int off : {0, -1}) {
        switches.authEnabled = off;
        const LogCalls log;
        LabelFifo("/f", -1, TARVO_DOMAIN_LOCAL, "");
        ExpectSingle(log, 1, -1, "", {Info("[single domain] Auth is disabled.")});
    }
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(SingleDomain, UnknownPeerNeedsNoLabel) {
    SetContexts(-ENOENT);
    const LogCalls log;
    LabelFifo("/f", -1, TARVO_DOMAIN_LOCAL, "");
    ExpectSingle(log, 1, -1, "", {Warning("[single domain] No need SetFileCon, inName=/f, targetPid=-1. targetCon=")});
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(SingleDomain, BrokenPolicyStopsTheLabelling) {
    for (const int state : {-ENOENT, -EACCES, S_IFDIR | 0700}) {
        SetContexts(state);
        const LogCalls log;
        LabelFifo("/f", 42, TARVO_DOMAIN_LOCAL, "");
        ExpectSingle(
            log, 1, 42, "",
            {Warning("[single domain] Can not access contexts for /f, maybe auth policy is installed wrong.")});
    }
    EXPECT_THAT(selinux.calls, IsEmpty());
}

using CrossDomain = FifoLabel;

TEST_F(CrossDomain, TypeOfTheTargetBecomesAFullContext) {
    for (const int pid : {-1, 42}) {
        selinux.calls.clear();
        const LogCalls log;
        LabelFifo("/f", pid, TARVO_DOMAIN_ORLA, "foo_t");
        EXPECT_THAT(selinux.calls, ElementsAre("setfilecon /f system_u:object_r:foo_t:s0"));
        ExpectCross(log, 1, "foo_t", {Info("[cross domain] targetCon convert result is system_u:object_r:foo_t:s0")});
    }
}

TEST_F(CrossDomain, FullContextThatCannotBeSetIsReported) {
    for (const int result : {-1, 1}) {
        selinux.result = result;
        const LogCalls log;
        LabelFifo("/f", -1, TARVO_DOMAIN_ORLA, "foo_t");
        ExpectCross(log, 1, "foo_t",
                    {Info("[cross domain] targetCon convert result is system_u:object_r:foo_t:s0"),
                     Error(Text("[cross domain] The ret of restorecon for file /f is %d. curHostName is 1, context is "
                                "system_u:object_r:foo_t:s0",
                                result))});
    }
}

TEST_F(CrossDomain, TypeThatCannotBeConvertedIsReported) {
    for (const int result : {-1, 0}) {
        switches.conversion = result;
        const LogCalls log;
        LabelFifo("/f", -1, TARVO_DOMAIN_ORLA, "foo_t");
        ExpectCross(log, 1, "foo_t", {Error("Convert context failed!")});
    }
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(CrossDomain, OrlaGetsFullContexts) {
    switches.hostName = 2;
    for (const int result : {0, -1}) {
        selinux.calls.clear();
        selinux.result = result;
        const LogCalls log;
        LabelFifo("/f", -1, TARVO_DOMAIN_DP, "u:r:t:s");
        EXPECT_THAT(selinux.calls, ElementsAre("setfilecon /f u:r:t:s"));
        std::vector<LogCall> more;
        if (result != 0) {
            more.push_back(Error("[cross domain] The ret of restorecon for file /f is -1. domain is 1, targetCon is "
                                 "u:r:t:s"));
        }
        ExpectCross(log, 2, "u:r:t:s", more);
    }
}

TEST_F(CrossDomain, WithoutATargetContextNothingIsSet) {
    switches.authEnabled = -1;
    const LogCalls log;
    LabelFifo("/f", 42, TARVO_DOMAIN_ORLA, "");
    ExpectCross(log, 1, "", {Info("[cross domain] targetCon is empty, inName is /f.")});
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(CrossDomain, OffStopsBeforeThePolicyIsLookedAt) {
    SetContexts(-ENOENT);
    for (const int off : {0, -1}) {
        switches.authEnabled = off;
        const LogCalls log;
        LabelFifo("/f", 42, TARVO_DOMAIN_ORLA, "foo_t");
        ExpectCross(log, 1, "foo_t", {Info("[cross domain] auth is disabled, inName is /f.")});
    }
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(CrossDomain, BrokenPolicyStopsTheLabelling) {
    for (const int host : {1, 2}) {
        switches.hostName = host;
        const auto other = static_cast<TarvoDomain>(3 - host);
        for (const int state : {-ENOENT, S_IFDIR | 0750}) {
            SetContexts(state);
            const LogCalls log;
            LabelFifo("/f", 42, other, "foo_t");
            ExpectCross(log, host, "foo_t",
                        {Warning(Text("[cross domain] Auth Can not access contexts for /f. curHostName is %d", host))});
        }
    }
    EXPECT_THAT(selinux.calls, IsEmpty());
}

// The wrappers with the switch on.
TEST_F(FifoLabel, OnContextsComeFromThePolicy) {
    char *con = nullptr;
    EXPECT_EQ(0, AuthGetPidCon(42, &con));
    EXPECT_STREQ("peer_u:peer_r:peer_t:s0", con);
    AuthFreeCon(con);
    selinux.getResult = -1;
    EXPECT_EQ(-1, AuthGetCon(&con));
    AuthFreeCon(con);
    selinux.result = -7;
    EXPECT_EQ(-7, AuthSetFileCon("/a", "c"));
    EXPECT_EQ(-7, AuthSelinuxSetFileCon("/b", "c"));
    EXPECT_EQ(-7, AuthSetCon("d"));
    EXPECT_THAT(selinux.calls, ElementsAre("getpidcon 42", "getcon", "setfilecon /a c", "setfilecon /b c", "setcon d"));
}

TEST_F(FifoLabel, IsOnTheFileBeforeItIsPublished) {
    std::vector<std::string> labelled;
    const ScopedHook publish(Call::Link, [&](const CallInfo &) { labelled = selinux.calls; });
    const CallTrace trace(path);
    EXPECT_EQ(0, CreateFifo(path, NO_GID, 42, TARVO_DOMAIN_LOCAL, ""));
    EXPECT_THAT(labelled, ElementsAre("getpidcon 42", "setfilecon " + trace.TempName() + " peer_u:peer_r:peer_t:s0"));
    EXPECT_EQ(labelled, selinux.calls);
}

TEST_F(FifoLabel, ThatFailsNeverKeepsAFifoFromBeingPublished) {
    const struct {
        int pid;
        TarvoDomain domain;
        const char *targetCon;
        int contexts;
    } rows[] = {
        {-1, TARVO_DOMAIN_LOCAL, "", READABLE},     {42, TARVO_DOMAIN_LOCAL, "", READABLE},
        {42, TARVO_DOMAIN_DP, "u:r:t:s", READABLE}, {42, TARVO_DOMAIN_ORLA, "foo_t", READABLE},
        {42, TARVO_DOMAIN_ORLA, "", READABLE},      {42, TARVO_DOMAIN_LOCAL, "", -ENOENT},
        {42, TARVO_DOMAIN_ORLA, "foo_t", -ENOENT},
    };
    selinux.result = -1;
    for (const auto &row : rows) {
        SetContexts(row.contexts);
        EXPECT_EQ(0, CreateFifo(path, NO_GID, row.pid, row.domain, row.targetCon));
        EXPECT_EQ(0660U, StateOf(path).st_mode & PERMISSION_BITS);
        EXPECT_THAT(OwnFifoFiles(), testing::SizeIs(1));
        ::unlink(path.c_str());
    }
}

// In the orla domain, mode and group of its own pipes are left to the umask and the creator.
class OrlaFifo : public FifoLabel {
protected:
    OrlaFifo() { switches.hostName = 2; }
    ~OrlaFifo() override { ::umask(previousMask); }

    const mode_t previousMask = ::umask(027);
};

TEST_F(OrlaFifo, KeepsTheModeAndGroupOfItsCreation) {
    for (const TarvoDomain domain : {TARVO_DOMAIN_LOCAL, TARVO_DOMAIN_ORLA}) {
        const CallTrace trace(path);
        EXPECT_EQ(0, CreateFifo(path, 4711, 42, domain, ""));
        EXPECT_THAT(trace.Calls(), ElementsAre("access NAME", "mkfifo TEMP 660", "link TEMP NAME", "unlink TEMP"));
        EXPECT_EQ(0640U, StateOf(path).st_mode & PERMISSION_BITS);
        EXPECT_EQ(::getegid(), StateOf(path).st_gid);
        ::unlink(path.c_str());
    }
}

TEST_F(OrlaFifo, ToTheOtherDomainGetsModeAndGroup) {
    const CallTrace trace(path);
    EXPECT_EQ(0, CreateFifo(path, ::getegid(), 42, TARVO_DOMAIN_DP, "u:r:t:s"));
    const std::string group = std::to_string(::getegid());
    EXPECT_THAT(trace.Calls(), ElementsAre("access NAME", "mkfifo TEMP 660", "chmod TEMP 660", "chown TEMP -1:" + group,
                                           "link TEMP NAME", "unlink TEMP", "chown NAME -1:" + group));
    EXPECT_EQ(0660U, StateOf(path).st_mode & PERMISSION_BITS);
}

TEST_F(OrlaFifo, AdoptedFifoKeepsItsGroup) {
    const ScopedHook rival(Call::Link, [this](const CallInfo &) { MakeFifo(path); });
    const CallCounter groups(Call::Chown);
    EXPECT_EQ(0, CreateFifo(path, 4711, 42, TARVO_DOMAIN_LOCAL, ""));
    EXPECT_EQ(0U, groups.Count());
}

} // namespace
