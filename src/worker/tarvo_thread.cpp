#include "worker/tarvo_thread.h"

#include <pthread.h>
#include <sched.h>

#include <cerrno>

#include "diag/velm_syslog.h"

namespace {

constexpr char LOG_TAG[] = "tarvo_thread";
constexpr int URGENT_SCHED_PRIORITY = 50;

} // namespace

void NuroCoreSetaffinity() {}

bool TarvoThread::Joinable() const { return thread.joinable(); }

void TarvoThread::Join() { thread.join(); }

// A thread inherits the scheduling of the thread that starts it. Workers are also started by urgent receive threads and
// by the host's own real-time threads, and must not keep that for normal callbacks.
void TarvoThread::StartAtNormal() {
    const int policy = sched_getscheduler(0);
    if (policy != SCHED_FIFO && policy != SCHED_RR) {
        curPriority = TARVO_PRIORITY_NORMAL;
        return;
    }
    const sched_param param = {};
    const int ret = pthread_setschedparam(thread.native_handle(), SCHED_OTHER, &param);
    curPriority = ret == 0 ? TARVO_PRIORITY_NORMAL : TARVO_PRIORITY_NONE;
}

int TarvoThread::SetRTType(const TarvoPriority &priority) {
    if (priority == curPriority) {
        return 0;
    }
    sched_param param = {};
    int policy = SCHED_OTHER;
    switch (priority) {
    case TARVO_PRIORITY_NORMAL:
        break;
    case TARVO_PRIORITY_URGENT:
        policy = SCHED_FIFO;
        param.sched_priority = URGENT_SCHED_PRIORITY;
        break;
    default:
        TARVO_LOG(LOG_ERR, "No such TarvoPriority, input is %d", static_cast<int>(priority));
        return -EINVAL;
    }
    if (!Joinable()) {
        return 0;
    }
    const int ret = pthread_setschedparam(thread.native_handle(), policy, &param);
    if (ret != 0) {
        // Not the caller's failure: without the right to real-time scheduling the work is done at normal priority.
        TARVO_LOG(LOG_ERR, "Pthread_setschedparam failed for thread(%lu), setSchedParam %d ret(%d).",
                  thread.native_handle(), static_cast<int>(priority), ret);
        return 0;
    }
    curPriority = priority;
    return 0;
}
