#ifndef TARVO_API_TABLEFACTORY_H
#define TARVO_API_TABLEFACTORY_H

#include <memory>

class TarvoTable;

// Makes the worker pool, the callback pool and the pipe table of the process on first use and takes them down, in the
// opposite order, at process exit.
// Owns: nothing; a ProcessObject owns the table, which owns the callback pool and that the worker pool. Threads: any.
// Locks: those of the ProcessObject, inside. Ends: at process exit.
class TableFactory {
public:
    // The table, or empty once process exit has begun to destroy it. The caller's reference keeps the table alive for
    // as long as the call that uses it.
    static std::shared_ptr<TarvoTable> GetInstance();
};

#endif // TARVO_API_TABLEFACTORY_H
