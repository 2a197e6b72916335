// tarvo in coroutines, for C++20: awaiters over tarvo_loop.hpp. They go with any kind of task and bring none.
//
//     Task Ask(tarvo::Loop &loop) {
//         tarvo::CoLink link = tarvo::CoLink::Connect(loop, "camera", tarvo::LinkOptions().Timeout(1s));
//         if (const std::error_code error = co_await link.Opened()) {
//             co_return;
//         }
//         const auto [error, answer] = co_await link.Call("zoom", 100ms);
//     }
//
// A coroutine goes on inside a dispatch of the loop, on its thread, and never inside the call that it waits in. It may
// be destroyed while it waits: nothing of it is used any more. When the loop is destroyed, what waits goes on no more,
// and is left to its owner to destroy. An exception that leaves a coroutine's resumption ends the process.
#ifndef TARVO_CORO_HPP
#define TARVO_CORO_HPP

#include "tarvo_loop.hpp"

#include <coroutine>
#include <initializer_list>

namespace tarvo {

// The end of a call: no error and the bytes of the answer, or why there are none.
struct Answer {
    std::error_code error;
    // Valid until the coroutine waits for something else.
    std::string_view bytes;
};

// Waits for the end of a call. Threads: the loop's.
class [[nodiscard]] CallAwaiter {
public:
    CallAwaiter(LinkView link, Payload payload, std::chrono::milliseconds timeout) noexcept
        : link_(link), payload_(payload), timeout_(timeout) {}
    ~CallAwaiter() {
        if (resume_ != nullptr) {
            resume_->awaiter = nullptr;
        }
    }
    CallAwaiter(const CallAwaiter &) = delete;
    CallAwaiter &operator=(const CallAwaiter &) = delete;

    [[nodiscard]] bool await_ready() const noexcept { return false; }
    // Never inlined: compilers then do not move what it does into the coroutine, whose frame may be gone when that
    // runs.
    __attribute__((noinline)) bool await_suspend(std::coroutine_handle<> waiting) noexcept {
        waiting_ = waiting;
        int64_t call = 0;
        answer_.error = detail::LinkAccess::Call(link_, payload_, timeout_, Resume(this), call, resume_);
        return !answer_.error;
    }
    [[nodiscard]] Answer await_resume() const noexcept { return answer_; }

private:
    // What the loop calls. It and the awaiter know each other, and each may end before the other.
    struct Resume {
        explicit Resume(CallAwaiter *of) noexcept : awaiter(of) {}
        Resume(Resume &&other) noexcept : awaiter(std::exchange(other.awaiter, nullptr)) { Tell(this); }
        Resume &operator=(Resume &&) = delete;
        ~Resume() { Tell(nullptr); }

        void operator()(std::error_code error, std::string_view bytes) noexcept {
            CallAwaiter *const waits = awaiter;
            Tell(nullptr);
            awaiter = nullptr;
            if (waits != nullptr) {
                waits->answer_ = {error, bytes};
                waits->waiting_.resume();
            }
        }
        void Tell(Resume *here) noexcept {
            if (awaiter != nullptr) {
                awaiter->resume_ = here;
            }
        }

        CallAwaiter *awaiter;
    };

    const LinkView link_;
    const Payload payload_;
    const std::chrono::milliseconds timeout_;
    std::coroutine_handle<> waiting_;
    Answer answer_;
    Resume *resume_ = nullptr;
};

// co_await CoCall(link, "question", 1s): LinkView::Call on any link, as those of a service's clients, with its end as
// an Answer. The payload must live until the coroutine waits.
inline CallAwaiter CoCall(LinkView link, Payload payload, std::chrono::milliseconds timeout) noexcept {
    return {link, payload, timeout};
}

namespace detail {

// A coroutine that waits for something that a link does.
struct Waiter : Chained {
    std::coroutine_handle<> waiting;
    std::error_code result;
};

// What a CoLink knows, at an address that stays. Threads: the loop's.
struct CoState {
    static void Tell(Chained &ring, std::error_code result) noexcept {
        for (Chained *entry = ring.after; entry != &ring; entry = entry->after) {
            static_cast<Waiter *>(entry)->result = result;
        }
    }

    // Everything may end as the first of them goes on, this object too.
    static void Wake(std::initializer_list<Chained *> rings) {
        Chained awake;
        for (Chained *const ring : rings) {
            while (Chained *const entry = ring->TakeFirst()) {
                entry->Join(awake);
            }
        }
        while (auto *const waiter = static_cast<Waiter *>(awake.TakeFirst())) {
            waiter->waiting.resume();
        }
    }

    void Opened(std::error_code error) {
        opened = true;
        result = error;
        Tell(opening, error);
        if (!error) {
            return Wake({&opening});
        }
        Tell(closing, error);
        Tell(full, error);
        Wake({&opening, &closing, &full});
    }
    void Closed() {
        closed = true;
        Tell(closing, {});
        Tell(full, std::make_error_code(std::errc::broken_pipe));
        Wake({&full, &closing});
    }
    void Writable() {
        Tell(full, {});
        Wake({&full});
    }
    void Canceled() {
        for (Chained *const ring : {&opening, &full, &closing}) {
            Tell(*ring, std::make_error_code(std::errc::operation_canceled));
        }
        Wake({&opening, &full, &closing});
    }
    [[nodiscard]] bool IsAwaited() const noexcept { return !opening.Alone() || !full.Alone() || !closing.Alone(); }

    bool opened = false;
    bool closed = false;
    std::error_code result; // of the open
    Chained opening;
    Chained full;
    Chained closing;
};

} // namespace detail

// Waits for what a CoLink does. Threads: the loop's.
class [[nodiscard]] LinkAwaiter {
public:
    LinkAwaiter(detail::Chained &ring, bool isReady, std::error_code result) noexcept : ring_(ring), isReady_(isReady) {
        waiter_.result = result;
    }
    LinkAwaiter(const LinkAwaiter &) = delete;
    LinkAwaiter &operator=(const LinkAwaiter &) = delete;

    [[nodiscard]] bool await_ready() const noexcept { return isReady_; }
    __attribute__((noinline)) void await_suspend(std::coroutine_handle<> waiting) noexcept {
        waiter_.waiting = waiting;
        waiter_.Join(ring_);
    }
    std::error_code await_resume() const noexcept { return waiter_.result; }

private:
    detail::Chained &ring_;
    const bool isReady_;
    detail::Waiter waiter_;
};

// A Link that coroutines wait for; as many as like. Owns: the link. Can be moved, also while somebody waits. Threads:
// the loop's.
class [[nodiscard]] CoLink {
public:
    CoLink() noexcept = default;
    CoLink(CoLink &&) noexcept = default;
    CoLink &operator=(CoLink &&other) noexcept {
        CoLink taken(std::move(other));
        std::swap(state_, taken.state_);
        std::swap(link_, taken.link_);
        return *this;
    }
    ~CoLink() { Close(); }

    // Link::Connect and Link::Open. `request` is what LinkHandlers::OnRequest takes.
    template <typename Request = detail::NoHandler>
    static CoLink Connect(Loop &loop, const std::string &target, const LinkOptions &options = {},
                          Request request = {}) {
        std::error_code error;
        CoLink link = Connect(loop, target, options, std::move(request), error);
        detail::ThrowIf(error, {"tarvo link to ", target});
        return link;
    }
    template <typename Request>
    static CoLink Connect(Loop &loop, const std::string &target, const LinkOptions &options, Request request,
                          std::error_code &error) noexcept {
        return Begin(std::move(request), error,
                     [&](auto handlers) { return Link::Connect(loop, target, options, std::move(handlers), error); });
    }
    template <typename Request = detail::NoHandler>
    static CoLink Open(Loop &loop, const std::string &target, const LinkOptions &options, Request request = {}) {
        std::error_code error;
        CoLink link = Open(loop, target, options, std::move(request), error);
        detail::ThrowIf(error, {"tarvo link to ", target});
        return link;
    }
    template <typename Request>
    static CoLink Open(Loop &loop, const std::string &target, const LinkOptions &options, Request request,
                       std::error_code &error) noexcept {
        return Begin(std::move(request), error,
                     [&](auto handlers) { return Link::Open(loop, target, options, std::move(handlers), error); });
    }

    explicit operator bool() const noexcept { return static_cast<bool>(link_); }
    // For what needs no waiting.
    [[nodiscard]] LinkView View() const noexcept { return link_; }

    // The four below are for a link that is not empty. Each ends with operation_canceled, in the next dispatch, when
    // this object closes or ends.
    //
    // The end of the open: no error, or why it has failed.
    [[nodiscard]] LinkAwaiter Opened() noexcept { return {state_->opening, state_->opened, state_->result}; }
    // The end of a call. resource_unavailable_try_again when there is no room for it: then wait for Writable.
    [[nodiscard]] CallAwaiter Call(Payload payload, std::chrono::milliseconds timeout) noexcept {
        return {link_, payload, timeout};
    }
    // After something was refused with resource_unavailable_try_again, at once: there is room again; or broken_pipe,
    // when the remote has gone instead.
    [[nodiscard]] LinkAwaiter Writable() noexcept {
        const bool isOver = state_->closed || state_->result;
        return {state_->full, isOver, state_->closed ? std::make_error_code(std::errc::broken_pipe) : state_->result};
    }
    // The remote has closed or died. An error: the link was never open.
    [[nodiscard]] LinkAwaiter Closed() noexcept {
        return {state_->closing, state_->closed || state_->result, state_->result};
    }

    void Close() noexcept {
        detail::LoopState *const loop = detail::LinkAccess::LoopOf(link_);
        (void)link_.Close();
        std::unique_ptr<detail::CoState> state = std::move(state_);
        if (state != nullptr && state->IsAwaited() && loop != nullptr) {
            (void)loop->Post([kept = std::move(state)] { kept->Canceled(); });
        }
    }

private:
    template <typename Request, typename Opener>
    static CoLink Begin(Request request, std::error_code &error, Opener open) noexcept {
        CoLink link;
        link.state_.reset(new (std::nothrow) detail::CoState);
        detail::CoState *const state = link.state_.get();
        if (state == nullptr) {
            error = std::make_error_code(std::errc::not_enough_memory);
            return link;
        }
        auto handlers = LinkHandlers()
                            .OnOpened([state](LinkView, std::error_code result) { state->Opened(result); })
                            .OnClosed([state](LinkView) { state->Closed(); })
                            .OnWritable([state](LinkView) { state->Writable(); });
        if constexpr (detail::IS_SET<Request>) {
            link.link_ = open(std::move(handlers).OnRequest(std::move(request)));
        } else {
            link.link_ = open(std::move(handlers));
        }
        return link;
    }

    std::unique_ptr<detail::CoState> state_;
    Link link_;
};

} // namespace tarvo

#endif // TARVO_CORO_HPP
