#include "unit/fifo/Switches.h"

#include "api/EnvManager.h"
#include "fifo/security_context.h"

tarvo_test::Switches &tarvo_test::TheSwitches() {
    static Switches switches;
    return switches;
}

int IsAuthEnabled(void) { return tarvo_test::TheSwitches().authEnabled; }

int EnvManager::HostName() { return tarvo_test::TheSwitches().hostName; }
