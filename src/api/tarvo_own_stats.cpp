// A process's own numbers.
#include <cerrno>
#include <memory>

#include "api/TableFactory.h"
#include "base/NoThrow.h"
#include "pipe/TarvoPipeImpl.h"
#include "table/TarvoTable.h"
#include "tarvo_stats.h"

int TarvoPipeStats(int pipe, TarvoStatsPipe *stats) {
    return NoThrow([=] {
        if (stats == nullptr) {
            return -EINVAL;
        }
        const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
        const std::shared_ptr<TarvoPipeImpl> found = table ? table->GetPipe(pipe) : nullptr;
        return found ? found->Counted().Read(*stats) : -ENOENT;
    });
}
