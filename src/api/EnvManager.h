#ifndef TARVO_API_ENVMANAGER_H
#define TARVO_API_ENVMANAGER_H

#include <atomic>
#include <cstddef>
#include <string>

#include "base/Mutex.h"

// Answers what depends on the process and the build: its name, the FIFO directories, the domain and the run mode.
// Owns: the process name and the cached run mode, for the life of the process. Threads: any. Locks: Instance() guards
// the changes of the name, the run mode and every access to the environment made here. Ends: never (no destructor
// runs at exit, since threads may still ask for the name then).
class EnvManager {
public:
    // The environment mutex. The members marked REQUIRES(Instance()) do not take it themselves.
    static Mutex &Instance();

    // The process name, resolved once on first use: what SetProcName was given, else $PROC_NAME, else the first word
    // of /proc/<pid>/comm. Empty when that failed; it is not tried again. Never null. What it points to never changes
    // and is never freed: a process that is named anew meanwhile has its new name elsewhere.
    static const char *ProcName() EXCLUDES(Instance());

    // Takes up to 100 characters as the process name; 0, ERANGE with the name emptied, or ENOMEM with the name as it
    // was, when memory has run out and the process has had many names. Pipes that are open keep their names.
    static int SetProcName(const std::string &name) REQUIRES(Instance());

    // Takes the process name from /proc/<pid>/comm; leaves it untouched when that cannot be read or is too long.
    static void EnableDefaultProcName() REQUIRES(Instance());

    // The domain that the library was built for: 1 "dp", 2 "orla".
    static int HostName();
    static bool IsOrlaDomain();
    static std::string FifoPrefix();
    static std::string OrlaFifoDirPrefix();
    // Build host name followed by ":".
    static std::string GetLocalDomainName();

    // $KELDOR_RUN_MODE, cached once it has been seen non-empty.
    static std::string GetRunMode() EXCLUDES(Instance());

    // 0, -ENAMETOOLONG above 4096 characters, -EINVAL when the library path is not part of `path`.
    static int CheckVelmlibPath(const std::string &path);

    // For launchers: whether this process was prepared by its manager.
    static bool CheckEnvPreparation() EXCLUDES(Instance());
    // For launchers: prepares the environment for a child named `name`; 0 or the first failure.
    static int EnvInit(const std::string &name) EXCLUDES(Instance());
    // Sets an environment variable, and the process name with "PROC_NAME"; 0 or -errno.
    static int SetEnv(const std::string &key, const std::string &value) REQUIRES(Instance());
    // Puts the library path in front of LD_PRELOAD unless it is there already; 0 or a negative code.
    static int UpdateLdPreload() REQUIRES(Instance());

private:
    static constexpr std::size_t PROC_NAME_SIZE = 101;

    struct KeptName;

    static void ResolveProcName() EXCLUDES(Instance());
    static int CopyProcName(const char *name) REQUIRES(Instance());
    static const char *KeepName(const char *name, std::size_t length) REQUIRES(Instance());

    // Read without the lock, so that a log line needs none: one of the names kept, or "".
    static std::atomic<const char *> procName;
};

#endif // TARVO_API_ENVMANAGER_H
