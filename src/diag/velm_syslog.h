// The one way in which the library reports anything: a line in the system log.
#ifndef TARVO_DIAG_VELM_SYSLOG_H
#define TARVO_DIAG_VELM_SYSLOG_H

#include <syslog.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "base/LockOrder.h"
#include "base/Mutex.h"

// What a line is about; selects its label. The restrained types are limited to one line per call site and thread in
// 600 seconds.
enum VELMLogType : int32_t {
    LOG_TYPE_VELM = 0,
    LOG_TYPE_TARVO = 1,
    LOG_TYPE_FAULTEVENT = 2,
    LOG_TYPE_HEARTBEAT = 3,
    LOG_TYPE_VELM_RESTRAINED = 4,
    LOG_TYPE_TARVO_RESTRAINED = 5,
    LOG_TYPE_FAULTEVENT_RESTRAINED = 6,
    LOG_TYPE_HEARTBEAT_RESTRAINED = 7,
};

extern "C" {

// Writes one line of at most 255 characters to the system log. `level` is a syslog priority; levels above LOG_NOTICE
// are discarded at once. `file` is the base name of the caller's source file; null is printed as "UnknowFile", and
// keeps a restrained line from being written. A message longer than 255 characters becomes "F". Keeps errno. Any
// thread.
void VelmSyslog(VELMLogType type, int level, int line, const char *file, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

// For host processes: true makes sure that the limiter of the restrained types exists; false switches it off for good,
// after which every restrained line is discarded.
void VelmLogGetInstance(bool enable);

} // extern "C"

// A line of the file whose LOG_TAG is in scope. The arguments are evaluated whatever the level: keep them free of work.
#define TARVO_LOG_AS(type, level, ...) VelmSyslog(type, level, __LINE__, LOG_TAG, __VA_ARGS__)
#define TARVO_LOG(level, ...) TARVO_LOG_AS(LOG_TYPE_TARVO, level, __VA_ARGS__)
#define TARVO_LOG_RESTRAINED(level, ...) TARVO_LOG_AS(LOG_TYPE_TARVO_RESTRAINED, level, __VA_ARGS__)

namespace ZoVelm {

// Remembers when each call site last wrote a restrained line.
// Owns: the table. Threads: any. Locks: tableMutex. Ends: at process exit, when its protector yields it no more.
class VelmRestrainedLog {
public:
    VelmRestrainedLog() = default;
    ~VelmRestrainedLog();
    VelmRestrainedLog(const VelmRestrainedLog &) = delete;
    VelmRestrainedLog &operator=(const VelmRestrainedLog &) = delete;

    // The limiter, or empty once it was switched off or destroyed. False switches it off for good.
    static std::shared_ptr<VelmRestrainedLog> GetInstance(bool enable);

    // 0: write the line, whose time is now recorded. -1: suppress it.
    int PrintTableInsert(unsigned long key) EXCLUDES(tableMutex);

private:
    std::atomic<bool> destroyed{false};
    Mutex tableMutex ACQUIRED_AFTER(lock_order::logging);
    // Call-site hash to the wall-clock second of its last line.
    std::unordered_map<uint64_t, int64_t> printTable GUARDED_BY(tableMutex);
};

} // namespace ZoVelm

#endif // TARVO_DIAG_VELM_SYSLOG_H
