#include "unit/fifo/Switches.h"

#include "api/EnvManager.h"
#include "fifo/security_context.h"
#include "support/Interpose.h"

tarvo_test::Switches &tarvo_test::TheSwitches() {
    static Switches switches;
    return switches;
}

int IsAuthEnabled(void) { return tarvo_test::TheSwitches().authEnabled; }

int GetSelinuxConByVornCon(const char *con, char **out) {
    if (tarvo_test::TheSwitches().conversion) {
        *out = nullptr;
        return *tarvo_test::TheSwitches().conversion;
    }
    return TARVO_NEXT(GetSelinuxConByVornCon)(con, out);
}

int EnvManager::HostName() { return tarvo_test::TheSwitches().hostName; }
