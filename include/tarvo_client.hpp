// A client that comes back to its server; part of tarvo.hpp.
#ifndef TARVO_CLIENT_HPP
#define TARVO_CLIENT_HPP

#include "tarvo_pipe.hpp"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace tarvo {

// What a Client does beside the Options of its pipe. Setters return the object.
class ClientOptions {
public:
    // Runs `callback(PipeView)` each time the client has connected, before any call of other threads goes over the new
    // pipe, so that it may introduce itself there.
    ClientOptions &OnUp(std::function<void(PipeView)> callback) {
        up_ = std::move(callback);
        return *this;
    }
    // Runs `callback()` each time the server has gone.
    ClientOptions &OnDown(std::function<void()> callback) {
        down_ = std::move(callback);
        return *this;
    }
    // How long to wait between two looks for the server: `first` after it has gone, twice as long each time, up to
    // `longest`. Otherwise 10 ms and 1 s.
    ClientOptions &Waits(std::chrono::milliseconds first, std::chrono::milliseconds longest) {
        first_ = std::max(first, std::chrono::milliseconds(1));
        longest_ = std::max(longest, first_);
        return *this;
    }

private:
    friend class Client;
    std::function<void(PipeView)> up_;
    std::function<void()> down_;
    std::chrono::milliseconds first_{10};
    std::chrono::milliseconds longest_{1000};
};

// A pipe to the server of one name that is opened again whenever the server has come back. Nothing is repeated: a call
// or send either goes to the server that is there, or fails. Errors while there is none: not_connected (ENOTCONN), and
// nothing has been sent; or why connecting fails, where that will not pass by itself (file_exists: another Pipe owns
// the pipe; permission_denied). broken_pipe: the server went during the call, and may have handled the request or not.
//
// Looks for the server's file before it connects, so that waiting writes no log lines.
// Owns: a thread, which connects and runs OnUp and OnDown, and the pipe. Threads: any may call and send. Ends: waits
// for an attempt to connect (up to three times the Options' time-out, which is 1 s unless set) and for OnUp and OnDown,
// and must not end in one of them; callbacks of the Options may still run, as with a Pipe.
class Client {
public:
    // Does not wait. A name that no server can have throws invalid_argument, as do options that no connect can use.
    explicit Client(std::string server, Options pipe = {}, ClientOptions options = {})
        : server_(std::move(server)), pipeOptions_(std::move(pipe)), options_(std::move(options)),
          state_(std::make_shared<State>()) {
        const char *const fault = IsPossible(server_) ? pipeOptions_.ConnectFault() : " (no server can have this name)";
        if (fault != nullptr) {
            detail::ThrowIf(std::make_error_code(std::errc::invalid_argument), {"tarvo client of ", server_, fault});
        }
        PrepareOptions();
        thread_ = std::thread([this] { Run(); });
    }
    ~Client() {
        state_->End();
        thread_.join();
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Whether there is a pipe at this moment. The server may be gone already.
    [[nodiscard]] bool IsUp() const noexcept { return state_->handle.load() != 0; }
    // Waits for that, not longer than `timeout`.
    [[nodiscard]] bool WaitUntilUp(std::chrono::milliseconds timeout) const {
        std::unique_lock<std::mutex> lock(state_->mutex);
        return state_->changed.wait_for(lock, timeout, [this] { return IsUp(); });
    }
    // How often it has connected.
    [[nodiscard]] long Connections() const noexcept { return connections_.load(); }

    // PipeView::Send. No error says that the server has received it: one that dies takes what it has not read with it.
    void Send(Payload payload, uint32_t id = 0) {
        std::error_code error;
        Send(payload, id, error);
        detail::ThrowIf(error, {"tarvo send to ", server_});
    }
    void Send(Payload payload, uint32_t id, std::error_code &error) noexcept {
        Use(error, [&](PipeView pipe) { pipe.Send(payload, id, error); });
    }
    void Send(Payload payload, std::error_code &error) noexcept { Send(payload, 0, error); }

    // PipeView::Call.
    Response Call(Payload payload, std::chrono::milliseconds timeout) {
        std::error_code error;
        Response response = Call(payload, timeout, error);
        detail::ThrowIf(error, {"tarvo call to ", server_});
        return response;
    }
    Response Call(Payload payload, std::chrono::milliseconds timeout, std::error_code &error) noexcept {
        Response response;
        const int handle = Use(error, [&](PipeView pipe) { response = pipe.Call(payload, timeout, error); });
        if (!error) {
            state_->proven.store(handle, std::memory_order_relaxed);
        } else if (error == std::errc::timed_out && detail::LookFor(server_) != detail::Presence::Served) {
            state_->Lost(handle); // a server that dies as it opens its end leaves a pipe that never breaks
        }
        return response;
    }

private:
    using Clock = std::chrono::steady_clock;

    // Shared with the callbacks of the pipe, which may still run when the client has ended.
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        std::atomic<int> handle{0};      // of the pipe that calls go over; 0: none
        std::atomic<int> proven{0};      // the pipe over which somebody has answered
        std::atomic<int> away{ENOTCONN}; // the error while there is no pipe
        int lost = 0;                    // the last pipe that has broken; guarded by the mutex, as is
        bool ended = false;

        void Lost(int pipe) noexcept {
            const std::lock_guard<std::mutex> lock(mutex);
            lost = pipe;
            int expected = pipe;
            handle.compare_exchange_strong(expected, 0);
            changed.notify_all();
        }
        void End() {
            const std::lock_guard<std::mutex> lock(mutex);
            ended = true;
            changed.notify_all();
        }
        // Whether the client has ended within that time.
        bool EndsWithin(std::chrono::milliseconds time) {
            std::unique_lock<std::mutex> lock(mutex);
            return changed.wait_for(lock, time, [this] { return ended; });
        }
        // Returns when the pipe is lost or the client has ended; whether it has.
        bool AwaitLoss(int pipe) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return ended || lost == pipe; });
            handle.store(0);
            return ended;
        }
        void Publish(int pipe) {
            const std::lock_guard<std::mutex> lock(mutex);
            if (lost != pipe) {
                handle.store(pipe);
            }
            changed.notify_all();
        }
    };

    // The rules of TarvoAttr::targetName, so that a wrong name is told now and not sought for ever.
    static bool IsPossible(const std::string &name) {
        return !name.empty() && name.size() <= MAX_NAME && !detail::HoldsZero(name) &&
               name.find_first_of("|;><`&()$") == std::string::npos && name.find("..") == std::string::npos;
    }

    // All connections share one object of each of the user's callbacks.
    void PrepareOptions() {
        if (pipeOptions_.attr_.timeout == 0) {
            pipeOptions_.Timeout(std::chrono::seconds(1));
        }
        const auto users = std::make_shared<detail::Callbacks>(pipeOptions_.callbacks_.value_or(detail::Callbacks()));
        pipeOptions_.OnRequest(
            [users](const Request &request) {
                if (users->request) {
                    users->request(request);
                }
            },
            [users, state = state_](PipeView pipe) {
                state->Lost(pipe.Handle());
                if (users->closed) {
                    users->closed(pipe);
                }
            });
    }

    // Does `work` with the pipe, if there is one, and looks what its error says about the pipe. Returns the handle.
    template <typename Work>
    int Use(std::error_code &error, Work work) noexcept {
        const int handle = state_->handle.load();
        if (handle == 0) {
            error.assign(state_->away.load(), std::generic_category());
            return 0;
        }
        work(PipeView(handle));
        const bool nothingSent = error == std::errc::no_such_file_or_directory;
        if (nothingSent || error == std::errc::broken_pipe || error == std::errc::bad_file_descriptor) {
            state_->Lost(handle);
            error = std::make_error_code(nothingSent ? std::errc::not_connected : std::errc::broken_pipe);
        }
        return handle;
    }

    void Run() {
        auto wait = options_.first_;
        std::chrono::milliseconds pause{0};
        while (!state_->EndsWithin(pause) && IsAlive()) {
            const bool wasGood = Serve();
            pause = wasGood ? options_.first_ : wait;
            wait = std::min(2 * pause, options_.longest_);
        }
    }

    // One connection, from its beginning to its end. Whether it was a good one: a server that takes connections and
    // dies each time must not be pressed.
    bool Serve() {
        const Clock::time_point start = Clock::now();
        Pipe pipe = TryToConnect();
        if (!pipe) {
            return false;
        }
        const int handle = pipe.Handle();
        ++connections_;
        if (options_.up_) {
            options_.up_(pipe);
        }
        state_->Publish(handle);
        const bool hasEnded = state_->AwaitLoss(handle);
        pipe = Pipe(); // or the next attempt would find the dead one
        if (!hasEnded && options_.down_) {
            options_.down_();
        }
        return state_->proven.load() == handle || Clock::now() - start >= options_.longest_;
    }

    // An empty one, and the reason in `away`, when nobody serves.
    Pipe TryToConnect() {
        const detail::Presence presence = detail::LookFor(server_);
        std::error_code error = std::make_error_code(std::errc::not_connected);
        Pipe pipe;
        if (presence == detail::Presence::Served) {
            try {
                pipe = Pipe::Connect(server_, pipeOptions_, error);
            } catch (const std::bad_alloc &) { // of the copied options; like a server that is away
            }
        } else if (presence == detail::Presence::NoRight || presence == detail::Presence::NoEntry) {
            error = std::make_error_code(std::errc::permission_denied);
        }
        const bool mayPass = error != std::errc::permission_denied && error != std::errc::file_exists;
        state_->away.store(mayPass ? ENOTCONN : error.value());
        return pipe;
    }

    std::string server_;
    Options pipeOptions_;
    ClientOptions options_;
    std::shared_ptr<State> state_;
    std::atomic<long> connections_{0};
    std::thread thread_;
};

} // namespace tarvo

#endif // TARVO_CLIENT_HPP
