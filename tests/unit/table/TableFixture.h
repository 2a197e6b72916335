// What the tests of the pipe table share: a table of their own, beside the process-wide one.
#ifndef TARVO_TESTS_TABLE_TABLEFIXTURE_H
#define TARVO_TESTS_TABLE_TABLEFIXTURE_H

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/Eventually.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/Pipes.h"
#include "support/Reach.h"
#include "support/SyslogCapture.h"
#include "table/TarvoTable.h"
#include "worker/CallbackPool.h"

namespace tarvo_test {

// Threads of this process with that name.
inline int ThreadsNamed(const std::string &name) {
    int count = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        count += comm == name ? 1 : 0;
    }
    return count;
}

// Waits for that many receive threads: a thread names itself a little after its start, and is gone a little after its
// join.
inline bool MonitorThreadsBecome(int count) {
    return Eventually([count] { return ThreadsNamed("tarvo_monitor") == count; });
}

// Private members that these tests reach.
struct NextFd {
    using Type = std::atomic<int32_t> TarvoTable::*;
    friend Type Get(NextFd);
};
struct TableLock {
    using Type = SharedMutex TarvoTable::*;
    friend Type Get(TableLock);
};
struct CloseMutex {
    using Type = Mutex TarvoTable::*;
    friend Type Get(CloseMutex);
};
template struct Reach<NextFd, &TarvoTable::nextFd>;
template struct Reach<TableLock, &TarvoTable::tableLock>;
template struct Reach<CloseMutex, &TarvoTable::closeMutex>;

class TableTest : public LeakCheckedTest {
protected:
    TableTest() { FifoDirectory(); }

    int Open(const TarvoAttr &attr, TarvoPipeType type = TARVO_NORMAL_PIPE) {
        return table->MakeAndAddPipe(&attr, type);
    }
    // A pipe to a new remote that creates its files and waits for nobody.
    int OpenNew(TarvoPriority priority = TARVO_PRIORITY_NORMAL, TarvoDomain domain = TARVO_DOMAIN_LOCAL) {
        const std::string remote = UniqueName("remote");
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        attr.priority = priority;
        attr.domain = domain;
        return Open(attr);
    }

    // Lines about trouble; the end of a receive thread is a notice.
    std::vector<std::string> Complaints() const {
        std::vector<std::string> found;
        for (const LogLine &line : log.Lines()) {
            if (line.level <= LOG_WARNING) {
                found.push_back(line.message);
            }
        }
        return found;
    }

    const std::string self = UniqueName("self");
    SyslogCapture log;
    std::shared_ptr<WorkerPool> workers = std::make_shared<WorkerPool>(1024, 20);
    std::shared_ptr<CallbackPool> callbacks = std::make_shared<CallbackPool>(workers);
    std::shared_ptr<TarvoTable> table = std::make_shared<TarvoTable>(callbacks);
};

} // namespace tarvo_test

#endif // TARVO_TESTS_TABLE_TABLEFIXTURE_H
