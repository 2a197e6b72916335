#ifndef TARVO_PIPE_PIPEOBSERVER_H
#define TARVO_PIPE_PIPEOBSERVER_H

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "tarvo.h"
#include "worker/TarvoTask.h"

class TarvoPipeImpl;

// What a pipe reports, and to whom it hands its callbacks. The pipe table implements it.
// Owns: nothing. Threads: callers, receive and worker threads at once. Locks: the implementer's. Ends: after the last
// pipe that was given a reference to it.
class PipeObserver {
public:
    // Runs `task` after all earlier ones of the same worker name. 0, or negative when it was refused.
    virtual int OnRequestIn(std::string workerName, const std::function<void()> &task,
                            TarvoPriority priority) const = 0;
    // Runs `task` on any free worker. 0, or negative when it was refused.
    virtual int OnAsyncRequestIn(const std::function<void()> &task, TarvoPriority priority) const = 0;
    // The pipe's read end is open: `readFd` is its descriptor, `fd` the pipe handle. 0 or negative.
    virtual int OnPipeOpened(int readFd, int fd, std::shared_ptr<TarvoPipeImpl> pipe) = 0;
    virtual void OnOpenFailed(int fd) = 0;
    // The remote has closed and no callback is there to be told.
    virtual void OnPipeRemoteClosed(int fd) = 0;
    // The named worker of a pipe is no longer needed.
    virtual void OnFreeSelfWorker(std::string workerName) = 0;
    virtual ~PipeObserver() = default;
    // OnRequestIn with a task that is in one piece already, so that a message does not take another two from the heap.
    virtual int OnTaskIn(std::string workerName, std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const {
        return OnRequestIn(
            std::move(workerName), [task = std::move(task)] { (*task)(); }, priority);
    }
    // OnAsyncRequestIn with such a task.
    virtual int OnAsyncTaskIn(std::shared_ptr<const TarvoTask> task, TarvoPriority priority) const {
        return OnAsyncRequestIn([task = std::move(task)] { (*task)(); }, priority);
    }
};

#endif // TARVO_PIPE_PIPEOBSERVER_H
