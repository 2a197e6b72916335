#ifndef TARVO_LOOP_WORK_H
#define TARVO_LOOP_WORK_H

#include <cstddef>

// Somebody who has callbacks to run: a link, a service, the posted functions. Waits for its turn in a loop's queue.
// Owns: nothing. Threads: that of the loop. Locks: none. Ends: in no queue.
class Work {
public:
    Work() = default;
    virtual ~Work() = default;
    Work(const Work &) = delete;
    Work &operator=(const Work &) = delete;

    // Runs at most `share` callbacks, counted in `ran`. Returns whether it could run more in this round.
    virtual bool Serve(int share, int &ran) = 0;

private:
    friend class WorkQueue;
    Work *next = nullptr;
    Work *previous = nullptr;
    class WorkQueue *queue = nullptr;
};

// Those who wait, first come first served; each stands in at most one queue. Owns: nothing. Threads, Locks: as Work.
// Ends: any time.
class WorkQueue {
public:
    WorkQueue() = default;
    WorkQueue(const WorkQueue &) = delete;
    WorkQueue &operator=(const WorkQueue &) = delete;

    bool Empty() const { return first == nullptr; }
    std::size_t Size() const { return size; }

    // Unless it stands in a queue.
    void Append(Work &work) {
        if (work.queue == nullptr) {
            Link(work);
        }
    }
    Work &Pop() {
        Work &work = *first;
        Remove(work);
        return work;
    }
    static void Remove(Work &work) {
        if (work.queue != nullptr) {
            work.queue->Unlink(work);
        }
    }
    // Moves all that wait in `other` behind those here.
    void Take(WorkQueue &other) {
        while (!other.Empty()) {
            Link(other.Pop());
        }
    }

private:
    void Link(Work &work) {
        work.queue = this;
        work.previous = last;
        work.next = nullptr;
        (last != nullptr ? last->next : first) = &work;
        last = &work;
        ++size;
    }
    void Unlink(Work &work) {
        (work.previous != nullptr ? work.previous->next : first) = work.next;
        (work.next != nullptr ? work.next->previous : last) = work.previous;
        work.queue = nullptr;
        --size;
    }

    Work *first = nullptr;
    Work *last = nullptr;
    std::size_t size = 0;
};

#endif // TARVO_LOOP_WORK_H
