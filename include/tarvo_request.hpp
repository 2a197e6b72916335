// Sending, calling, and what a callback sees of a request; part of tarvo.hpp.
#ifndef TARVO_REQUEST_HPP
#define TARVO_REQUEST_HPP

#include "tarvo_basics.hpp"
#include "tarvo_stats.h"

#include <functional>

namespace tarvo {

// A pipe that somebody else owns: the library, for the pipes of a server, or a Pipe. Costs as much as the int that it
// is, and may outlive the pipe: its functions then fail with no_such_file_or_directory (ENOENT). Threads: any.
class PipeView {
public:
    PipeView() noexcept = default;
    explicit PipeView(int handle) noexcept : handle_(handle) {}

    // The handle of tarvo.h; 0 for none.
    [[nodiscard]] int Handle() const noexcept { return handle_; }
    // TarvoGetRemoteName: who is at the other end; empty when there is no such pipe (any more).
    [[nodiscard]] std::string RemoteName() const { return detail::RemoteName(handle_); }

    // TarvoPipeStats: what this process has counted of the pipe. The error is ENODATA where nothing is counted.
    [[nodiscard]] TarvoStatsPipe Stats() const {
        std::error_code error;
        const TarvoStatsPipe stats = Stats(error);
        detail::ThrowIf(error, "tarvo statistics", handle_);
        return stats;
    }
    TarvoStatsPipe Stats(std::error_code &error) const noexcept {
        TarvoStatsPipe stats{};
        error = ToError(TarvoPipeStats(handle_, &stats));
        return stats;
    }

    // TarvoSendRequest: one-way, without waiting. `id` reaches the remote's callback unchanged.
    void Send(Payload payload, uint32_t id = 0) const {
        std::error_code error;
        Send(payload, id, error);
        detail::ThrowIf(error, "tarvo send", handle_);
    }
    void Send(Payload payload, uint32_t id, std::error_code &error) const noexcept {
        TarvoRequest request{id, payload.Data(), payload.Size()};
        error = ToError(TarvoSendRequest(handle_, &request));
    }
    void Send(Payload payload, std::error_code &error) const noexcept { Send(payload, 0, error); }

    // TarvoTimedRPCSync: sends and waits for the answer, not longer than `timeout` (0 or less: takes only an answer
    // that is there at once). On an error the response is empty. A call whose pipe was closed under it, which tarvo.h
    // may report as success without data, is broken_pipe here.
    Response Call(Payload payload, std::chrono::milliseconds timeout) const {
        std::error_code error;
        Response response = Call(payload, timeout, error);
        detail::ThrowIf(error, "tarvo call", handle_);
        return response;
    }
    Response Call(Payload payload, std::chrono::milliseconds timeout, std::error_code &error) const noexcept {
        return CallFor(payload, detail::Milliseconds(timeout, 0), error);
    }

    // TarvoRPCSync: waits until the answer comes or the pipe closes, however long that takes.
    Response CallWithoutLimit(Payload payload) const {
        std::error_code error;
        Response response = CallWithoutLimit(payload, error);
        detail::ThrowIf(error, "tarvo call", handle_);
        return response;
    }
    Response CallWithoutLimit(Payload payload, std::error_code &error) const noexcept {
        return CallFor(payload, -1, error);
    }

    // TarvoSendResponse: answers the request `id` that came over this pipe. Returns why that was not possible, and does
    // not throw: a remote that has gone in the meantime is no reason to end. A reply that is empty or longer than
    // MAX_PAYLOAD is invalid_argument; the remote is told nothing and waits until its time-out.
    std::error_code Reply(uint32_t id, Payload payload) const noexcept {
        TarvoResponse response{id, payload.Data(), payload.Size()};
        return ToError(TarvoSendResponse(handle_, &response));
    }
    void Reply(uint32_t id, Payload payload, std::error_code &error) const noexcept { error = Reply(id, payload); }
    // The same for those who want the exception. One that leaves a callback ends the process.
    void ReplyOrThrow(uint32_t id, Payload payload) const {
        detail::ThrowIf(Reply(id, payload), "tarvo reply", handle_);
    }

    // TarvoCleanPipe: removes the two files of a pipe of TARVO_MODE_CLIENT, which stays open.
    void RemoveFiles() const {
        std::error_code error;
        RemoveFiles(error);
        detail::ThrowIf(error, "tarvo remove files", handle_);
    }
    void RemoveFiles(std::error_code &error) const noexcept { error = ToError(TarvoCleanPipe(handle_)); }

    // TarvoClosePipe. No error when there is nothing to close.
    void Close() const {
        std::error_code error;
        Close(error);
        detail::ThrowIf(error, "tarvo close", handle_);
    }
    void Close(std::error_code &error) const noexcept { error = ToError(TarvoClosePipe(handle_)); }

    friend bool operator==(PipeView one, PipeView other) noexcept { return one.handle_ == other.handle_; }
    friend bool operator!=(PipeView one, PipeView other) noexcept { return one.handle_ != other.handle_; }

private:
    Response CallFor(Payload payload, int timeout, std::error_code &error) const noexcept {
        TarvoRequest request{0, payload.Data(), payload.Size()};
        Response response;
        error = ToError(TarvoTimedRPCSync(handle_, &request, &response.raw_, timeout));
        if (!error && response.raw_.data == nullptr) {
            error = std::make_error_code(std::errc::broken_pipe);
        }
        return response;
    }

    int handle_ = 0;
};

// Which request to answer, for an answer that is given after the callback has returned, from any thread. Copies freely.
class Ticket {
public:
    Ticket(PipeView pipe, uint32_t id) noexcept : pipe_(pipe), id_(id) {}
    // PipeView::Reply.
    std::error_code Reply(Payload payload) const noexcept { return pipe_.Reply(id_, payload); }
    void Reply(Payload payload, std::error_code &error) const noexcept { error = Reply(payload); }
    void ReplyOrThrow(Payload payload) const { pipe_.ReplyOrThrow(id_, payload); }

private:
    PipeView pipe_;
    uint32_t id_;
};

// A request as its callback sees it: a view that is valid until that callback returns. Copy the bytes to keep them.
class Request {
public:
    Request(int handle, const TarvoRequest &raw, std::string_view client) noexcept
        : pipe_(handle), raw_(raw), client_(client) {}

    [[nodiscard]] std::string_view Bytes() const noexcept { return {raw_.data, raw_.size}; }
    // A copy of the bytes.
    [[nodiscard]] std::string Text() const { return std::string(Bytes()); }
    [[nodiscard]] uint32_t Id() const noexcept { return raw_.id; }
    [[nodiscard]] PipeView From() const noexcept { return pipe_; }
    // Who has sent it: the name of the remote. A client of a server has "_" and its process id at the end of its name.
    // What the remote says of itself, which proves nothing.
    [[nodiscard]] std::string_view ClientName() const noexcept { return client_; }
    // PipeView::Reply, to the sender of this request.
    std::error_code Reply(Payload payload) const noexcept { return pipe_.Reply(raw_.id, payload); }
    void Reply(Payload payload, std::error_code &error) const noexcept { error = Reply(payload); }
    void ReplyOrThrow(Payload payload) const { pipe_.ReplyOrThrow(raw_.id, payload); }
    // To answer later.
    [[nodiscard]] Ticket Keep() const noexcept { return {pipe_, raw_.id}; }

private:
    PipeView pipe_;
    const TarvoRequest &raw_;
    std::string_view client_;
};

namespace detail {

using RequestHandler = std::function<void(const Request &)>;
using PipeHandler = std::function<void(PipeView)>;

// A user's request callback, with what it returns sent as the reply.
template <typename Callback>
RequestHandler MakeRequestHandler(Callback callback) {
    constexpr bool takesRequests = std::is_invocable_v<Callback &, const Request &>;
    static_assert(takesRequests, "tarvo: OnRequest takes a callable for (const tarvo::Request &)");
    if constexpr (takesRequests) {
        using Result = std::invoke_result_t<Callback &, const Request &>;
        constexpr bool isReply = std::is_convertible_v<Result, Payload>;
        static_assert(
            std::is_void_v<Result> || isReply,
            "tarvo: an OnRequest callback returns the reply, as something that converts to tarvo::Payload, or "
            "nothing");
        if constexpr (isReply) {
            return [callback = std::move(callback)](const Request &request) mutable {
                const auto &reply = callback(request);
                request.Reply(reply);
            };
        } else {
            return callback;
        }
    }
}

// What runs for a pipe; either may be empty.
struct Callbacks {
    RequestHandler request;
    PipeHandler closed;
};

} // namespace detail
} // namespace tarvo

#endif // TARVO_REQUEST_HPP
