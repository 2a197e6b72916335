// What the tests of the exported functions share.
#ifndef TARVO_TESTS_API_APIFIXTURE_H
#define TARVO_TESTS_API_APIFIXTURE_H

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/Pipes.h"
#include "support/RawPeer.h"
#include "support/SyslogCapture.h"
#include "tarvo.h"

namespace tarvo_test {

// Longer than any test waits.
constexpr int HOUR_MS = 3600000;

// Ends all communication of the process after the test, so that the leak check sees what is left then: each test needs
// a process of its own.
class ApiTest : public LeakCheckedTest {
protected:
    ApiTest() { FifoDirectory(); }
    ~ApiTest() override { TarvoCfgFinishServer(); }

    const std::string self = UniqueName("self");
    const std::string remote = UniqueName("remote");
    SyslogCapture log;
};

// The simplest valid blocks.
class Blocks {
public:
    TarvoRequest request{7, text, 4};
    TarvoResponse response{7, text, 4};

private:
    char text[5] = "data";
};

} // namespace tarvo_test

#endif // TARVO_TESTS_API_APIFIXTURE_H
