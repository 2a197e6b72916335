// A loop of tarvo in a program that runs an io_context of Asio. That of Boost differs in its namespace, boost::asio,
// and the type of errors, boost::system::error_code.
#ifndef LOOP_ASIO_WATCH_H
#define LOOP_ASIO_WATCH_H

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>

#include <system_error>

#include "tarvo_loop.hpp"

class AsioWatch {
public:
    explicit AsioWatch(tarvo::Loop &watched, int callbacksAtATime = 64)
        : loop(watched), max(callbacksAtATime), descriptor(context, loop.Fd()) {
        Wait();
    }
    // The descriptor stays the loop's.
    ~AsioWatch() { descriptor.release(); }
    AsioWatch(const AsioWatch &) = delete;
    AsioWatch &operator=(const AsioWatch &) = delete;

    void Run() {
        context.restart();
        context.run();
    }
    void Stop() { context.stop(); }

private:
    void Wait() {
        descriptor.async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code &error) {
            if (!error) {
                loop.Dispatch(max);
                Wait();
            }
        });
    }

    tarvo::Loop &loop;
    const int max;
    asio::io_context context{1};
    asio::posix::stream_descriptor descriptor;
};

#endif // LOOP_ASIO_WATCH_H
