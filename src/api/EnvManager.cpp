#include "api/EnvManager.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <type_traits>

#include "base/ForkLock.h"
#include "base/LockOrder.h"
#include "base/UniqueFd.h"

namespace {

constexpr char BUILD_HOST_NAME[] = "dp";
constexpr char FIFO_PREFIX[] = "/dev/shm/velm/tarvo/";
constexpr char ORLA_FIFO_DIR_PREFIX[] = "/local";
constexpr char VELM_LIB_PATH[] = "/usr/lib64/libvelm.so.1";
constexpr char PROCESS_MANAGER_COMM[] = "process-manager";
constexpr char PROCESS_MANAGER_NAME[] = "PROCMGR";
constexpr char ENV_PROC_NAME[] = "PROC_NAME";
constexpr char ENV_STATUS[] = "VELM_STATUS";
constexpr char ENV_PRELOAD[] = "LD_PRELOAD";
constexpr char ENV_LIB_PATH[] = "VELM_LIB_PATH";
constexpr char ENV_RUN_MODE[] = "KELDOR_RUN_MODE";
constexpr char WHITESPACE[] = " \t\n\v\f\r";
constexpr std::size_t MAX_COMM_LENGTH = 16;
constexpr std::size_t COMM_BUFFER_SIZE = 128;

// The array of variables that the process was started with: it lies behind the arguments. A variable that is not in it
// never will be, since setenv and putenv put a new one into an array of their own, to which `environ` points then.
char **startEnvironment = nullptr;

__attribute__((constructor)) void FindStartEnvironment(int argc, char **argv) { startEnvironment = argv + argc + 1; }

bool HasStartEnvironment() { return __atomic_load_n(&environ, __ATOMIC_RELAXED) == startEnvironment; }

bool Contains(const std::string &text, const char *part) { return text.find(part) != std::string::npos; }

// All of these exist before any code runs, for the first log line of a process that has no memory left, and never end,
// since threads may still ask while statics die.
Mutex environmentMutex ACQUIRED_AFTER(lock_order::logging);
std::atomic<bool> procNameResolved{false};
// Set once, to a string that is never freed, when the mode is final: later readers need no lock.
std::atomic<const std::string *> knownRunMode{nullptr};
// Set once the variable was not in the array that the process was started with.
std::atomic<bool> runModeUnsetAtStart{false};
static_assert(std::is_trivially_destructible_v<Mutex>);

// A fork waits for a thread that has the mutex: that one may be inside tzset(3) or setenv(3) with a lock of the C
// library, which nobody would give back in the child.
__thread ForkLock forkLock;

void HoldForFork() { forkLock.Take(environmentMutex); }

void ReleaseInParent() { forkLock.ReleaseInParent(environmentMutex); }

void ReleaseInChild() { forkLock.ReleaseInChild(environmentMutex); }

__attribute__((constructor)) void WatchForks() { pthread_atfork(HoldForFork, ReleaseInParent, ReleaseInChild); }

} // namespace

// A name that the process has or had. Constant and never freed once it is published, as readers take no lock.
struct EnvManager::KeptName {
    char text[PROC_NAME_SIZE];
    KeptName *next;
};

std::atomic<const char *> EnvManager::procName{""};

Mutex &EnvManager::Instance() { return environmentMutex; }

const char *EnvManager::ProcName() {
    if (!procNameResolved.load(std::memory_order_acquire)) {
        ResolveProcName();
    }
    return procName.load(std::memory_order_acquire);
}

void EnvManager::ResolveProcName() {
    MutexLock lock(Instance());
    if (procNameResolved.load(std::memory_order_relaxed)) {
        return;
    }
    // Every log line asks for the name first. The first conversion to local time would look for the time zone in the
    // environment by itself, and not under the mutex.
    tzset();
    if (procName.load(std::memory_order_relaxed)[0] == '\0') {
        if (const char *name = std::getenv(ENV_PROC_NAME)) {
            CopyProcName(name);
        } else {
            EnableDefaultProcName();
        }
    }
    // Also when there is none: it is looked for once.
    procNameResolved.store(true, std::memory_order_release);
}

int EnvManager::SetProcName(const std::string &name) {
    // A name with an embedded terminator ends there, as for any C string copy.
    return CopyProcName(name.c_str());
}

int EnvManager::CopyProcName(const char *name) {
    const std::size_t length = strnlen(name, PROC_NAME_SIZE);
    if (length >= PROC_NAME_SIZE) {
        procName.store("", std::memory_order_release);
        return ERANGE;
    }
    const char *const kept = KeepName(name, length);
    if (kept == nullptr) {
        return ENOMEM;
    }
    procName.store(kept, std::memory_order_release);
    return 0;
}

// Takes memory only for more names than a process ever has: log lines carry the name, also when memory has run out. A
// name that comes again is found, so that only different ones add up.
const char *EnvManager::KeepName(const char *name, std::size_t length) {
    constexpr std::size_t USUAL_NAMES = 4;
    static KeptName usual[USUAL_NAMES];
    static std::size_t used = 0;
    static KeptName *newest = nullptr;
    for (const KeptName *kept = newest; kept != nullptr; kept = kept->next) {
        if (std::strcmp(kept->text, name) == 0) {
            return kept->text;
        }
    }
    KeptName *const kept = used < USUAL_NAMES ? &usual[used] : new (std::nothrow) KeptName;
    if (kept == nullptr) {
        return nullptr;
    }
    used += used < USUAL_NAMES ? 1 : 0;
    std::memcpy(kept->text, name, length + 1);
    kept->next = newest;
    newest = kept;
    return kept->text;
}

void EnvManager::EnableDefaultProcName() {
    char text[COMM_BUFFER_SIZE];
    std::snprintf(text, sizeof(text), "/proc/%d/comm", getpid());
    const UniqueFd file(open(text, O_RDONLY | O_CLOEXEC));
    if (file.Get() < 0) {
        return;
    }
    const ssize_t size = read(file.Get(), text, sizeof(text) - 1);
    text[size > 0 ? size : 0] = '\0';

    char *word = text + std::strspn(text, WHITESPACE);
    word[std::strcspn(word, WHITESPACE)] = '\0';
    if (std::strlen(word) <= MAX_COMM_LENGTH) {
        CopyProcName(std::strcmp(word, PROCESS_MANAGER_COMM) == 0 ? PROCESS_MANAGER_NAME : word);
    }
}

int EnvManager::HostName() {
    const std::string name = BUILD_HOST_NAME;
    if (name == "dp") {
        return 1;
    }
    return name == "orla" ? 2 : 1;
}

bool EnvManager::IsOrlaDomain() { return HostName() == 2; }

std::string EnvManager::FifoPrefix() { return FIFO_PREFIX; }

std::string EnvManager::OrlaFifoDirPrefix() { return ORLA_FIFO_DIR_PREFIX; }

std::string EnvManager::GetLocalDomainName() { return std::string(BUILD_HOST_NAME) + ":"; }

std::string EnvManager::GetRunMode() {
    if (const std::string *known = knownRunMode.load(std::memory_order_acquire)) {
        return *known;
    }
    // Every call asks. Without this, each would take the lock and search the whole environment.
    if (runModeUnsetAtStart.load(std::memory_order_relaxed) && HasStartEnvironment()) {
        return {};
    }
    MutexLock lock(Instance());
    if (const std::string *known = knownRunMode.load(std::memory_order_relaxed)) {
        return *known;
    }
    const char *mode = std::getenv(ENV_RUN_MODE);
    if (mode == nullptr && HasStartEnvironment()) {
        runModeUnsetAtStart.store(true, std::memory_order_relaxed);
    }
    if (mode == nullptr || *mode == '\0') {
        return "";
    }
    auto *const found = new std::string(mode);
    knownRunMode.store(found, std::memory_order_release);
    return *found;
}

int EnvManager::CheckVelmlibPath(const std::string &path) {
    constexpr std::size_t maxLength = 4096;
    if (path.size() > maxLength) {
        return -ENAMETOOLONG;
    }
    return Contains(path, VELM_LIB_PATH) ? 0 : -EINVAL;
}

bool EnvManager::CheckEnvPreparation() {
    MutexLock lock(Instance());
    if (std::getenv(ENV_PROC_NAME) == nullptr) {
        return false;
    }
    if (std::getenv(ENV_STATUS) != nullptr) {
        return true;
    }
    const char *preload = std::getenv(ENV_PRELOAD);
    return preload != nullptr && Contains(preload, VELM_LIB_PATH);
}

int EnvManager::SetEnv(const std::string &key, const std::string &value) {
    if (unsetenv(key.c_str()) != 0 || setenv(key.c_str(), value.c_str(), 0) != 0) {
        return -errno;
    }
    if (key == ENV_PROC_NAME) {
        SetProcName(value);
    }
    return 0;
}

int EnvManager::UpdateLdPreload() {
    const char *preload = std::getenv(ENV_PRELOAD);
    const std::string current = preload != nullptr ? preload : "";
    if (Contains(current, VELM_LIB_PATH)) {
        return 0;
    }
    std::string entry = VELM_LIB_PATH;
    if (const char *path = std::getenv(ENV_LIB_PATH)) {
        entry = path;
        const int ret = CheckVelmlibPath(entry);
        if (ret != 0) {
            return ret;
        }
    }
    return SetEnv(ENV_PRELOAD, entry + " " + current);
}

int EnvManager::EnvInit(const std::string &name) {
    MutexLock lock(Instance());
    int ret = SetEnv(ENV_PROC_NAME, name);
    if (ret == 0) {
        ret = SetEnv(ENV_STATUS, "READY");
    }
    return ret == 0 ? UpdateLdPreload() : ret;
}
