#include "api/TableFactory.h"

#include <unistd.h>

#include <utility>

#include "api/SingletonProtector.h"
#include "table/TarvoTable.h"
#include "worker/CallbackPool.h"
#include "worker/WorkerPool.h"

namespace {

constexpr unsigned NORMAL_WORKERS = 1024;
constexpr unsigned URGENT_WORKERS = 20;

using TableProtector = SingletonProtector<TarvoTable>;

// Stops handing out the table when process exit begins, and ends the library's threads before anybody can drop the
// last reference to the table.
//
// Callers hold references of their own while they are inside the library. Without this the last one to return could be
// a worker in the middle of a TarvoSendResponse, and the table's destructor, which joins the workers, would run on it.
//
// Owns: the table, and with it the pools. Threads: the exiting one. Locks: none. Ends: at process exit; the protector,
// which is written to `published`, never ends: calls that come during and after exit still have to find it, and be told
// that there is no table.
class ExitGuard {
public:
    ExitGuard(std::shared_ptr<TarvoTable> guardedTable, TableProtector *&published)
        : table(std::move(guardedTable)), protector(*new TableProtector(table)), owner(getpid()) {
        published = &protector;
    }

    ~ExitGuard() {
        if (getpid() != owner) {
            // A forked child: the threads to be joined do not exist here, and what would be closed is the parent's.
            KeepForever(std::move(table));
            return;
        }
        protector.Disable();
        AwaitCallers();
        table->DrainAndDisable();
    }

    ExitGuard(const ExitGuard &) = delete;
    ExitGuard &operator=(const ExitGuard &) = delete;

private:
    // A call that is under way when exit begins still gets its answer, unless that takes long: then it ends with the
    // table, as a call on a closed pipe does. Nobody enters any more.
    void AwaitCallers() const {
        for (int waited = 0; table.use_count() > OWN_REFERENCES && waited < MAX_WAIT_US; waited += WAIT_STEP_US) {
            usleep(WAIT_STEP_US);
        }
    }

    // Each caller inside the library has another one.
    static constexpr long OWN_REFERENCES = 1;
    static constexpr int WAIT_STEP_US = 1000;
    static constexpr int MAX_WAIT_US = 450000;

    std::shared_ptr<TarvoTable> table;
    TableProtector &protector;
    const pid_t owner;
};

std::shared_ptr<TarvoTable> MakeTable() {
    const auto workerPool = std::make_shared<WorkerPool>(NORMAL_WORKERS, URGENT_WORKERS);
    return std::make_shared<TarvoTable>(std::make_shared<CallbackPool>(workerPool));
}

} // namespace

std::shared_ptr<TarvoTable> TableFactory::GetInstance() {
    // Made in one step: another thread may end the process at any moment, and finds all of it to be ended, or nothing.
    static TableProtector *protector = nullptr;
    static const ExitGuard guard(MakeTable(), protector);
    return protector->Get();
}
