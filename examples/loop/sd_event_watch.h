// A loop of tarvo in a program that runs systemd's sd-event.
#ifndef LOOP_SD_EVENT_WATCH_H
#define LOOP_SD_EVENT_WATCH_H

#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include "tarvo_loop.hpp"

class SdEventWatch {
public:
    explicit SdEventWatch(tarvo::Loop &watched, int callbacksAtATime = 64) : loop(watched), max(callbacksAtATime) {
        int result = sd_event_new(&event);
        if (result >= 0) {
            result = sd_event_add_io(event, nullptr, loop.Fd(), EPOLLIN, Ready, this);
        }
        if (result < 0) {
            throw std::system_error(-result, std::generic_category(), "sd-event");
        }
    }
    ~SdEventWatch() { sd_event_unref(event); }
    SdEventWatch(const SdEventWatch &) = delete;
    SdEventWatch &operator=(const SdEventWatch &) = delete;

    void Run() {
        for (stopped = false; !stopped;) {
            sd_event_run(event, UINT64_MAX);
        }
    }
    void Stop() { stopped = true; }

private:
    static int Ready(sd_event_source *, int, uint32_t, void *data) {
        auto *const watch = static_cast<SdEventWatch *>(data);
        watch->loop.Dispatch(watch->max);
        return 0;
    }

    tarvo::Loop &loop;
    const int max;
    sd_event *event = nullptr;
    bool stopped = false;
};

#endif // LOOP_SD_EVENT_WATCH_H
