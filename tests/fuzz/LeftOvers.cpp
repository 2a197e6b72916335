#include "fuzz/LeftOvers.h"

#include <memory>

#include "api/TableFactory.h"
#include "fuzz/Target.h"
#include "table/TarvoTable.h"
#include "tarvo.h"

namespace tarvo_test {

namespace {

// Handles count up and are never used again; those below are closed already. Only one object is in use in a program.
int nextHandle = 0;

} // namespace

LeftOvers::LeftOvers()
    : firstHandle(TableFactory::GetInstance()->AllocateFd()), pipes(TableFactory::GetInstance()->Size()),
      descriptors(DescriptorCount()) {}

void LeftOvers::AwaitNoOther() const {
    const std::shared_ptr<TarvoTable> table = TableFactory::GetInstance();
    nextHandle = nextHandle < firstHandle ? firstHandle : nextHandle;
    Await("nothing is left of the pipes that were closed", [this, &table] {
        for (const int last = table->AllocateFd(); nextHandle < last; ++nextHandle) {
            TarvoClosePipe(nextHandle);
        }
        WakeSleepers();
        return table->Size() == pipes && DescriptorCount() == descriptors;
    });
}

} // namespace tarvo_test
