// A loop of tarvo in a program that has an epoll loop of its own.
#ifndef LOOP_EPOLL_WATCH_H
#define LOOP_EPOLL_WATCH_H

#include <sys/epoll.h>
#include <unistd.h>

#include "tarvo_loop.hpp"

// The program's loop: one epoll set, in which the descriptor of tarvo's loop is one of many.
class EpollWatch {
public:
    explicit EpollWatch(tarvo::Loop &watched, int callbacksAtATime = 64)
        : loop(watched), max(callbacksAtATime), set(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = &loop;
        if (set < 0 || epoll_ctl(set, EPOLL_CTL_ADD, loop.Fd(), &event) != 0) {
            throw std::system_error(errno, std::generic_category(), "epoll");
        }
    }
    ~EpollWatch() { close(set); }
    EpollWatch(const EpollWatch &) = delete;
    EpollWatch &operator=(const EpollWatch &) = delete;

    void Run() {
        for (stopped = false; !stopped;) {
            epoll_event event{};
            if (epoll_wait(set, &event, 1, -1) == 1 && event.data.ptr == &loop) {
                loop.Dispatch(max);
            }
        }
    }
    void Stop() { stopped = true; }

private:
    tarvo::Loop &loop;
    const int max;
    const int set;
    bool stopped = false;
};

#endif // LOOP_EPOLL_WATCH_H
