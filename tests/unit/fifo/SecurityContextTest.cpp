// The layer over libselinux as the product has it: switched off.
#include "fifo/security_context.h"

#include <selinux/restorecon.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "support/Faults.h"
#include "unit/fifo/FakeSelinux.h"
#include "unit/fifo/FifoTest.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SecurityContext : public FifoTest {
protected:
    SecurityContext() { selinux = FakeSelinux(); }

    FakeSelinux &selinux = Selinux();
};

TEST_F(SecurityContext, LabellingIsOff) { EXPECT_EQ(-1, IsAuthEnabled()); }

TEST_F(SecurityContext, OffNoContextIsHandedOut) {
    selinux.context = "u:r:t:s";
    char marker = 0;
    char *con = &marker;
    EXPECT_EQ(1, AuthGetPidCon(1, &con));
    EXPECT_EQ(&marker, con);
    EXPECT_EQ(1, AuthGetCon(&con));
    EXPECT_EQ(&marker, con);
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(SecurityContext, OffSettingSucceedsAndChangesNothing) {
    selinux.result = -1;
    EXPECT_EQ(0, AuthSetFileCon("/a", "u:r:t:s"));
    EXPECT_EQ(0, AuthSelinuxSetFileCon("/a", "u:r:t:s"));
    EXPECT_EQ(0, AuthSetCon("u:r:t:s"));
    EXPECT_THAT(selinux.calls, IsEmpty());
}

TEST_F(SecurityContext, RestoreMapsItsFlagsAndDropsOthers) {
    constexpr unsigned int mapped[] = {0, 0x400, 0x1000, 0x1400, 0x2000, 0x2400, 0x3000, 0x3400};
    for (unsigned int flags = 0; flags < 8; ++flags) {
        selinux.calls.clear();
        selinux.result = static_cast<int>(flags) - 4;
        EXPECT_EQ(selinux.result, AuthRestoreCon("/a", flags));
        EXPECT_EQ(selinux.result, AuthSelinuxRestoreCon("/b", flags | 0xFFFFFFF8U));
        EXPECT_THAT(selinux.calls, ElementsAre(Text("selinux_restorecon /a %#x", mapped[flags]),
                                               Text("selinux_restorecon /b %#x", mapped[flags])));
    }
    EXPECT_EQ(0x400, SELINUX_RESTORECON_SYSLOG_CHANGES);
    EXPECT_EQ(0x1000, SELINUX_RESTORECON_IGNORE_NOENTRY);
    EXPECT_EQ(0x2000, SELINUX_RESTORECON_IGNORE_MOUNTS);
}

TEST_F(SecurityContext, PolicyQueriesAreForwarded) {
    for (const int result : {-1, 0, 1}) {
        selinux.calls.clear();
        selinux.result = result;
        EXPECT_EQ(result, AuthSecurityGetEnforce());
        EXPECT_EQ(result, AuthSecurityCheckContext("u:r:t:s"));
        EXPECT_EQ(static_cast<uint32_t>(result), AuthStringToAvPerm(7, "read"));
        EXPECT_EQ(static_cast<uint16_t>(result), AuthStringToSecurityClass("file"));
        EXPECT_THAT(selinux.calls, ElementsAre("security_getenforce", "security_check_context u:r:t:s",
                                               "string_to_av_perm 7 read", "string_to_security_class file"));
    }
}

TEST_F(SecurityContext, AccessVectorGoesInAndOut) {
    for (const int result : {0, -1}) {
        selinux.calls.clear();
        selinux.result = result;
        selinux.allowed = 0xCAFE0001U;
        uint32_t vector = 0x12345678U;
        EXPECT_EQ(result, AuthSecurityComputeAv("s", "t", 3, 0x80000000U, &vector));
        EXPECT_EQ(0x12345678U, selinux.allowedBefore);
        EXPECT_EQ(0xCAFE0001U, vector);
        EXPECT_THAT(selinux.calls, ElementsAre("security_compute_av s t 3 2147483648"));
    }
}

TEST_F(SecurityContext, NullIsReleasedByIgnoringIt) {
    AuthFreeCon(nullptr);
    AuthProxyFree(nullptr);
    EXPECT_EQ(0, selinux.strayReleases);
}

TEST_F(SecurityContext, ContextsAreReleasedWhateverTheSwitch) {
    char *const con = strdup("u:r:t:s");
    selinux.outstanding.insert(con);
    AuthFreeCon(con);
    EXPECT_THAT(selinux.outstanding, IsEmpty());
    // Leaks unless it is released: AddressSanitizer tells.
    AuthProxyFree(std::malloc(1));
}

TEST_F(SecurityContext, ContextsOfThePolicyMustBeReadableForAll) {
    constexpr mode_t directory = S_IFDIR;
    const struct {
        mode_t mode;
        int result;
    } rows[] = {{0755, 0},       {0444, 0},       {0777, 0},       {0344, -EACCES}, {0404, -EACCES},
                {0440, -EACCES}, {0333, -EACCES}, {0000, -EACCES}, {0750, -EACCES}};
    for (const auto &row : rows) {
        const mode_t mode = directory | row.mode;
        const ScopedHook hook(Call::Lstat, [mode](const CallInfo &call) {
            EXPECT_STREQ("/etc/selinux/targeted/contexts/files/", call.path);
            static_cast<struct stat *>(call.data)->st_mode = mode;
            return Outcome{0, 0};
        });
        EXPECT_EQ(row.result, CheckContextsAccess()) << std::oct << row.mode;
        EXPECT_EQ(1U, hook.Hits());
    }
}

TEST_F(SecurityContext, MissingContextsAreTold) {
    const LogCalls log;
    for (const int error : {ENOENT, EACCES, ENOTDIR}) {
        const ScopedFault fault(Call::Lstat, error);
        EXPECT_EQ(-error, CheckContextsAccess());
    }
    EXPECT_THAT(log.All(), IsEmpty());
}

} // namespace
