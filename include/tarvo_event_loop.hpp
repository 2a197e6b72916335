// The loop itself; part of tarvo_loop.hpp.
#ifndef TARVO_EVENT_LOOP_HPP
#define TARVO_EVENT_LOOP_HPP

#include "tarvo_loop_parts.hpp"

namespace tarvo {

// TarvoLoop: runs all callbacks of its services and links, on the thread that has created it. Owns: the loop, and with
// it the links and services, whose handles are empty afterwards. Can be moved and not copied. Threads: the one that has
// created it; Post and Stop any. Ends: at any moment, in a callback too; not on another thread, where it stays as it
// is.
class [[nodiscard]] Loop {
public:
    // Empty: for a loop that comes later.
    Loop() noexcept = default;
    Loop(Loop &&other) noexcept : state_(std::exchange(other.state_, nullptr)) {}
    Loop &operator=(Loop &&other) noexcept {
        std::swap(state_, other.state_);
        return *this;
    }
    ~Loop() {
        if (state_ != nullptr && TarvoLoopDestroy(state_->Get()) == 0) {
            delete state_;
        }
    }

    // TarvoLoopCreate.
    static Loop Create() {
        std::error_code error;
        Loop loop = Create(error);
        detail::ThrowIf(error, {"tarvo loop"});
        return loop;
    }
    static Loop Create(std::error_code &error) noexcept {
        Loop loop;
        TarvoLoop *created = nullptr;
        error = detail::LoopError(TarvoLoopCreate(&created));
        if (!error) {
            loop.state_ = new (std::nothrow) detail::LoopState(created);
        }
        if (!error && loop.state_ == nullptr) {
            TarvoLoopDestroy(created);
            error = std::make_error_code(std::errc::not_enough_memory);
        }
        return loop;
    }

    // The handle of tarvo_loop.h; null for none.
    [[nodiscard]] TarvoLoop *Handle() const noexcept { return state_ == nullptr ? nullptr : state_->Get(); }
    explicit operator bool() const noexcept { return state_ != nullptr; }

    // TarvoLoopFd: for another loop, which watches it for reading and then has this one dispatch. Readable as long as
    // there is something to do.
    [[nodiscard]] int Fd() const noexcept { return TarvoLoopFd(Handle()); }

    // TarvoLoopDispatch: runs what is due, at most `max` callbacks, and never waits; how many it has run.
    // operation_canceled when one of them has destroyed the loop; resource_deadlock_would_occur inside a callback and
    // on another thread.
    int Dispatch(int max = std::numeric_limits<int>::max()) {
        std::error_code error;
        const int count = Dispatch(max, error);
        detail::ThrowIf(error, {"tarvo dispatch"});
        return count;
    }
    int Dispatch(int max, std::error_code &error) noexcept {
        const int result = TarvoLoopDispatch(Handle(), max);
        error = detail::LoopError(result);
        return result < 0 ? 0 : result;
    }

    // TarvoLoopRun: dispatches and sleeps until Stop, or until `timeout` has passed: timed_out. Other errors as
    // Dispatch.
    std::error_code Run(std::chrono::milliseconds timeout = NO_LIMIT) noexcept {
        return detail::LoopError(TarvoLoopRun(Handle(), detail::LoopTimeout(timeout)));
    }

    // TarvoLoopStop. Any thread, and signal handlers.
    void Stop() noexcept { (void)TarvoLoopStop(Handle()); }

    // TarvoLoopPost: runs `function()` on the loop, once. Any thread; the loop must not be destroyed meanwhile. What
    // has not run when the loop is destroyed is destroyed with it. A function that is no larger than a pointer needs no
    // memory of its own.
    template <typename Function>
    [[nodiscard]] std::error_code Post(Function &&function) {
        static_assert(std::is_invocable_v<std::decay_t<Function> &>, "tarvo: Post takes a callable for ()");
        if (state_ == nullptr) {
            return std::make_error_code(std::errc::invalid_argument);
        }
        return detail::LoopError(state_->Post(std::forward<Function>(function)));
    }

private:
    friend class Link;
    friend class Service;

    detail::LoopState *state_ = nullptr;
};

} // namespace tarvo

#endif // TARVO_EVENT_LOOP_HPP
