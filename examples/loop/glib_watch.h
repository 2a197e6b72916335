// A loop of tarvo in a program that runs a main loop of GLib.
#ifndef LOOP_GLIB_WATCH_H
#define LOOP_GLIB_WATCH_H

#include <glib-unix.h>

#include "tarvo_loop.hpp"

class GlibWatch {
public:
    explicit GlibWatch(tarvo::Loop &watched, int callbacksAtATime = 64)
        : loop(watched), max(callbacksAtATime), source(g_unix_fd_add(loop.Fd(), G_IO_IN, Ready, this)),
          mainLoop(g_main_loop_new(nullptr, FALSE)) {}
    ~GlibWatch() {
        g_source_remove(source);
        g_main_loop_unref(mainLoop);
    }
    GlibWatch(const GlibWatch &) = delete;
    GlibWatch &operator=(const GlibWatch &) = delete;

    void Run() { g_main_loop_run(mainLoop); }
    void Stop() { g_main_loop_quit(mainLoop); }

private:
    static gboolean Ready(gint, GIOCondition, gpointer data) {
        auto *const watch = static_cast<GlibWatch *>(data);
        watch->loop.Dispatch(watch->max);
        return G_SOURCE_CONTINUE;
    }

    tarvo::Loop &loop;
    const int max;
    const guint source;
    GMainLoop *const mainLoop;
};

#endif // LOOP_GLIB_WATCH_H
