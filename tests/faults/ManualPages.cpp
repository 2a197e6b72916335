#include "faults/ManualPages.h"

#include <cerrno>
#include <cstring>

namespace tarvo_test {

const std::vector<ManualPage> &ManualPages() {
    static const auto *const pages = new std::vector<ManualPage>{
        {Call::Access,
         "access(2)",
         {EACCES, EFAULT, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS, ETXTBSY}},
        {Call::Chmod, "chmod(2)", {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
        {Call::Chown, "lchown(2)", {EACCES, EFAULT, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
        {Call::ClockGettime, "clock_gettime(2)", {EACCES, EFAULT, EINVAL, ENODEV, ENOTSUP, EPERM}},
        {Call::Close, "close(2)", {EBADF, EDQUOT, EINTR, EIO, ENOSPC}},
        {Call::EpollCreate, "epoll_create1(2)", {EINVAL, EMFILE, ENFILE, ENOMEM}},
        {Call::EpollCtl, "epoll_ctl(2)", {EBADF, EEXIST, EINVAL, ELOOP, ENOENT, ENOMEM, ENOSPC, EPERM}},
        {Call::EpollWait, "epoll_wait(2)", {EBADF, EFAULT, EINTR, EINVAL}},
        {Call::Eventfd, "eventfd(2)", {EINVAL, EMFILE, ENFILE, ENODEV, ENOMEM}},
        {Call::Fcntl, "fcntl(2)", {EAGAIN, EBADF, EINVAL, EPERM}},
        {Call::Flock, "flock(2)", {EBADF, EINTR, EINVAL, ENOLCK, EWOULDBLOCK}},
        {Call::Fstat, "fstat(2)", {EACCES, EBADF, EFAULT, ENOMEM, EOVERFLOW}},
        {Call::Link,
         "link(2)",
         {EACCES, EDQUOT, EEXIST, EFAULT, EIO, ELOOP, EMLINK, ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM,
          EROFS, EXDEV}},
        {Call::Lstat, "lstat(2)", {EACCES, EFAULT, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOVERFLOW}},
        {Call::Mkfifo, "mkfifo(3)", {EACCES, EDQUOT, EEXIST, ENAMETOOLONG, ENOENT, ENOSPC, ENOTDIR, EROFS}},
        {Call::Sleep, "nanosleep(2)", {EFAULT, EINTR, EINVAL}},
        {Call::Open, "open(2)", {EACCES, EBUSY,   EDQUOT,      EEXIST, EFAULT,       EFBIG,     EINTR,
                                 EINVAL, EISDIR,  ELOOP,       EMFILE, ENAMETOOLONG, ENFILE,    ENODEV,
                                 ENOENT, ENOMEM,  ENOTDIR,     ENXIO,  EOPNOTSUPP,   EOVERFLOW, EPERM,
                                 EROFS,  ETXTBSY, EWOULDBLOCK, ENOSPC}},
        {Call::Prctl, "prctl(2)", {EFAULT, EINVAL}},
        {Call::PthreadCreate, "pthread_create(3)", {EAGAIN, EINVAL, EPERM}},
        {Call::PthreadSetcancelstate, "pthread_setcancelstate(3)", {EINVAL}},
        {Call::PthreadSetschedparam, "pthread_setschedparam(3)", {EINVAL, ENOTSUP, EPERM, ESRCH}},
        {Call::Read, "read(2)", {EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR}},
        {Call::Realpath, "realpath(3)", {EACCES, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR}},
        {Call::SchedGetscheduler, "sched_getscheduler(2)", {EINVAL, EPERM, ESRCH}},
        {Call::SemTimedwait, "sem_clockwait(3)", {EINTR}, false},
        {Call::SemWait, "sem_wait(3)", {EINTR}, false},
        {Call::Unlink,
         "unlink(2)",
         {EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS}},
        {Call::Write,
         "write(2)",
         {EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE}},
    };
    return *pages;
}

const std::set<std::string> &FunctionsWithoutErrors() {
    static const auto *const names = new std::set<std::string>{
        // Memory and text.
        "bcmp", "free", "malloc", "memchr", "memcmp", "memcpy", "memmove", "memset", "snprintf", "strcmp", "strcspn",
        "strerror", "strftime", "strlen", "strnlen", "strspn", "strtoull", "vsnprintf", "localtime_r", "tzset",
        // The process, which cannot but have them.
        "getenv", "getgid", "getpid", "sched_yield", "setenv", "syslog", "unsetenv",
        // Fail for a caller's mistakes only, and for the time limits that they are given.
        "pthread_cond_clockwait", "pthread_cond_signal", "pthread_mutex_clocklock", "pthread_mutex_lock",
        "pthread_mutex_trylock", "pthread_mutex_unlock", "pthread_once", "pthread_rwlock_rdlock",
        "pthread_rwlock_unlock", "pthread_rwlock_wrlock", "pthread_self", "sem_destroy", "sem_init", "sem_post",
        "sem_getvalue", "sem_trywait",
        // Of the statistics, which a process does without where one of them fails (tests/unit/stats): no caller hears
        // of
        // it.
        "fchmod", "fchown", "fstatvfs", "geteuid", "getrlimit", "ioctl", "mmap", "openat", "posix_fallocate", "sysconf",
        "unlinkat",
        // A variable.
        "environ",
        // Sleeps by nanosleep, which has a row.
        "usleep",
        // Of one open descriptor and without a wait, it can be interrupted only, and is then tried again (poll(2)).
        "poll"};
    return *names;
}

std::string NameOfErrno(int value) {
    const char *const name = strerrorname_np(value);
    return name != nullptr ? name : std::to_string(value);
}

} // namespace tarvo_test
