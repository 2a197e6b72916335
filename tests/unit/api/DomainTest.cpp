// Domains as seen from a process of either domain, and from a host that is neither.
#include <gtest/gtest.h>

#include "api/EnvManager.h"
#include "support/SyslogCapture.h"
#include "tarvo.h"

namespace {

int hostName = 1;

} // namespace

// In front of the library's, which is fixed at build time.
int EnvManager::HostName() { return hostName; }

namespace {

constexpr char UNKNOWN_HOST[] = "Failed to get current domain, default domain is set.";

TEST(Domain, IsThatOfTheHost) {
    const tarvo_test::SyslogCapture log;
    hostName = 1;
    EXPECT_EQ(TARVO_DOMAIN_DP, GetCurrDomain());
    hostName = 2;
    EXPECT_EQ(TARVO_DOMAIN_ORLA, GetCurrDomain());
    EXPECT_TRUE(log.Lines().empty());
}

TEST(Domain, OfAnUnknownHostIsLocal) {
    for (const int unknown : {0, 3, -1}) {
        hostName = unknown;
        const tarvo_test::SyslogCapture log;
        EXPECT_EQ(TARVO_DOMAIN_LOCAL, GetCurrDomain());
        ASSERT_EQ(1U, log.Lines().size());
        EXPECT_TRUE(log.ContainsExactly(LOG_ERR, UNKNOWN_HOST));
        EXPECT_EQ("tarvo_internal", log.Lines().front().file);
        EXPECT_EQ("TARVO", log.Lines().front().label);
    }
}

struct Row {
    int host;
    TarvoDomain domain;
    bool isOrla;
    bool isCross;
};

TEST(Domain, DecidesWhereFifosLiveAndWhoIsForeign) {
    constexpr Row rows[] = {
        {1, TARVO_DOMAIN_LOCAL, false, false}, {1, TARVO_DOMAIN_DP, false, false}, {1, TARVO_DOMAIN_ORLA, false, true},
        {2, TARVO_DOMAIN_LOCAL, true, false},  {2, TARVO_DOMAIN_DP, false, true},  {2, TARVO_DOMAIN_ORLA, true, false},
        {0, TARVO_DOMAIN_LOCAL, false, false}, {0, TARVO_DOMAIN_DP, false, true},  {0, TARVO_DOMAIN_ORLA, false, true},
        {1, TarvoDomain(3), false, true},      {2, TarvoDomain(3), false, true},
    };
    for (const Row &row : rows) {
        hostName = row.host;
        EXPECT_EQ(row.isOrla, IsOrlaDomainPipe(row.domain)) << row.host << " " << row.domain;
        EXPECT_EQ(row.isCross, IsCrossDomainPipe(row.domain)) << row.host << " " << row.domain;
    }
}

} // namespace
