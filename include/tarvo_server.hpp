// The server of a process for C++17; part of tarvo.hpp.
#ifndef TARVO_SERVER_HPP
#define TARVO_SERVER_HPP

#include "tarvo_announcements.hpp"
#include "tarvo_pipe.hpp"

#include <atomic>
#include <functional>
#include <mutex>
#include <new>
#include <optional>

namespace tarvo {

// How to serve: TarvoServerAttr with names, and with callbacks that may have captures. Setters return the object. The
// callbacks live to the end of the process, since the library may still be calling them until then. Each is one object
// for all clients, which several threads are in at the same time when there are several clients: it has to guard what
// it changes.
class ServerOptions {
public:
    // The name to serve under. Otherwise the process name.
    ServerOptions &As(std::string name) {
        self_ = std::move(name);
        return *this;
    }
    // The group that owns the server's file.
    ServerOptions &Group(uint32_t gid) noexcept {
        attr_.gid = gid;
        return *this;
    }
    // Scheduling of the server's thread, and of the threads that run its pipes' callbacks. Otherwise normal.
    ServerOptions &Priority(TarvoPriority priority) noexcept {
        attr_.priority = priority;
        return *this;
    }
    // Runs `callback(const Request &)` for each request of each client: one after another for each client, several at
    // the same time for several clients. What it returns is the reply, if it returns something that converts to a
    // Payload; what cannot be sent is lost, as with Reply.
    template <typename Callback>
    ServerOptions &OnRequest(Callback callback) {
        request_ = detail::MakeRequestHandler(std::move(callback));
        return *this;
    }
    // Runs `callback(PipeView, std::string_view name)` for each pipe that the server has opened for a client. No
    // request of the client runs before it has returned, so it must not wait for one. It may call the client, which
    // must not ask back, once that has opened its end (no_such_device_or_address until then). The name is valid until
    // it returns. Runs on the server's thread, where a slow one delays further clients, or on the pipe's, when the
    // client's first request is there before.
    ServerOptions &OnClient(std::function<void(PipeView, std::string_view)> callback) {
        client_ = std::move(callback);
        return *this;
    }
    // Runs `callback(PipeView)` once a client has gone, after all of its requests. The library closes the pipe when it
    // returns.
    ServerOptions &OnClosed(std::function<void(PipeView)> callback) {
        closed_ = std::move(callback);
        return *this;
    }

private:
    friend class Server;
    TarvoServerAttr attr_;
    std::optional<std::string> self_;
    detail::RequestHandler request_;
    std::function<void(PipeView, std::string_view)> client_;
    detail::PipeHandler closed_;
};

// The one server of this process. It runs until Finish.
class Server {
public:
    // TarvoCreateServer; file_exists (EEXIST) when this process has a server already, which goes on unchanged. When a
    // server that ended by itself is started again, the pipes of the earlier one change to the new callbacks too.
    // Threads: any.
    static void Start(ServerOptions options) {
        const std::optional<std::string> name = options.self_;
        std::error_code error;
        Start(std::move(options), error);
        detail::ThrowIf(error, {"tarvo server", name ? " as " : "", name ? *name : ""});
    }
    static void Start(ServerOptions options, std::error_code &error) noexcept {
        if (options.self_ && detail::HoldsZero(*options.self_)) {
            error = std::make_error_code(std::errc::invalid_argument);
            return;
        }
        try {
            const std::lock_guard<std::mutex> lock(Starting());
            error = ToError(StartLocked(new Running{std::move(options), Current().load()}));
        } catch (const std::bad_alloc &) {
            error = std::make_error_code(std::errc::not_enough_memory);
        } catch (const std::system_error &failure) { // of the mutex
            error = failure.code();
        }
    }

private:
    // What a server that was started needs for good: its name and its callbacks. Its forerunners hang on it, so that
    // callbacks which still run keep what they run from.
    struct Running {
        ServerOptions options;
        Running *before;
    };

    // Neither is ever destroyed: callbacks may run while the process exits.
    static std::atomic<Running *> &Current() noexcept {
        static std::atomic<Running *> current{nullptr};
        return current;
    }
    static std::mutex &Starting() {
        static auto *const mutex = new std::mutex;
        return *mutex;
    }

    static int StartLocked(Running *next) noexcept {
        TarvoServerAttr attr = next->options.attr_;
        attr.selfName = next->options.self_ ? next->options.self_->c_str() : nullptr;
        attr.callback = Callback;
        attr.openCallback = OpenCallback;
        // The first client may come before the call returns. A server that runs already keeps its own callbacks, so
        // these replace others only once the start has succeeded.
        if (next->before == nullptr) {
            Current().store(next);
        }
        // Priority none is refused only after the thread has begun. Every other failure comes before that: nobody uses
        // what is released here.
        const int result = attr.priority == TARVO_PRIORITY_NONE ? -EINVAL : TarvoCreateServer(&attr);
        Current().store(result == 0 ? next : next->before);
        if (result != 0) {
            delete next;
        }
        return result;
    }

    static void Announce(int handle, std::string_view name) {
        const ServerOptions &options = Current().load(std::memory_order_acquire)->options;
        if (options.client_) {
            options.client_(PipeView(handle), name);
        }
    }

    static void Callback(int handle, TarvoRequest *raw) {
        const detail::Announcements::Client *client = detail::Announcements::Get().Await(handle, Announce);
        if (client == nullptr) {
            return; // the pipe was closed before anything of it ran: the process finishes
        }
        const ServerOptions &options = Current().load(std::memory_order_acquire)->options;
        if (raw == nullptr) {
            if (options.closed_) {
                options.closed_(PipeView(handle));
            }
        } else if (options.request_) {
            const Request request(handle, *raw, client->name);
            options.request_(request);
        }
    }

    static void OpenCallback(int handle, const char *name, uint32_t length) {
        detail::Announcements::Get().Opened(handle, std::string_view(name, length), Announce);
    }
};

} // namespace tarvo

#endif // TARVO_SERVER_HPP
