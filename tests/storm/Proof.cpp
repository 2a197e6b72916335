#include "storm/Proof.h"

#include <cstdio>
#include <cstdlib>

#include "support/Names.h"

namespace storm {

int Prove(const std::function<bool()> &work) {
    setenv("TARVO_TEST_WATCHDOG", "0", 1);
    static_cast<void>(tarvo_test::FifoDirectory());
    tarvo_test::RemoveOwnFifoFiles();
    const bool good = work();
    tarvo_test::RemoveOwnFifoFiles();
    std::printf("\n%s\n", good ? "passed" : "FAILED");
    return good ? 0 : 1;
}

} // namespace storm
