#include "api/TableFactory.h"

#include <unistd.h>

#include "base/Cancellation.h"
#include "base/ProcessObject.h"
#include "table/TarvoTable.h"
#include "worker/CallbackPool.h"
#include "worker/WorkerPool.h"

namespace {

constexpr unsigned NORMAL_WORKERS = 1024;
constexpr unsigned URGENT_WORKERS = 20;

// Callers hold references of their own while they are inside the library. Without the end here the last one to return
// could be a worker in the middle of a TarvoSendResponse, and the table's destructor, which joins the workers, would
// run on it.
struct ProcessTable {
    using Object = TarvoTable;

    static std::shared_ptr<TarvoTable> Make() {
        const auto workerPool = std::make_shared<WorkerPool>(NORMAL_WORKERS, URGENT_WORKERS);
        return std::make_shared<TarvoTable>(std::make_shared<CallbackPool>(workerPool));
    }

    static void End(std::shared_ptr<TarvoTable> &table) {
        const Uncancelled whole;
        AwaitCallers(table);
        table->DrainAndDisable();
        table.reset();
    }

private:
    // A call that is under way when exit begins still gets its answer, unless that takes long: then it ends with the
    // table, as a call on a closed pipe does. Nobody enters any more. Whoever is inside the server has the table too,
    // so this is the only wait of process exit for calls inside.
    static void AwaitCallers(const std::shared_ptr<TarvoTable> &table) {
        for (unsigned waited = TarvoTable::DRAIN_MS; table.use_count() > OWN_REFERENCES && waited < CALLS_INSIDE_MS;
             waited += WAIT_STEP_MS) {
            usleep(WAIT_STEP_MS * 1000);
        }
    }

    // Each caller inside the library has another one.
    static constexpr long OWN_REFERENCES = 1;
    static constexpr unsigned WAIT_STEP_MS = 1;
    // How long calls inside have from the beginning of exit, the time included that the table takes to drain.
    static constexpr unsigned CALLS_INSIDE_MS = 500;
};

} // namespace

std::shared_ptr<TarvoTable> TableFactory::GetInstance() { return ProcessObject<ProcessTable>::Get(); }
