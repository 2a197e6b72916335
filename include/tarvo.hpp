// tarvo for C++17: owning handles over tarvo.h.
//
// Everything here is a thin, inline layer over the functions of tarvo.h, whose contracts hold throughout: what blocks,
// which threads may call, what a result means. What this header adds is ownership and types:
//  - A Pipe closes itself, a Response releases itself. Both can be moved and not copied.
//  - Options have names. Time-outs are std::chrono durations. Payloads are views of whatever holds bytes.
//  - Each function comes in two styles, as in <filesystem>: one throws std::system_error, the other sets a
//    std::error_code and is noexcept. The codes are the errno values of tarvo.h in std::generic_category(), so that
//    they compare with std::errc; the result -1 ("the pipe is closing") is std::errc::broken_pipe.
//  - Callbacks are any callable, with or without captures. An exception that leaves one ends the process.
//
// The host process must ignore SIGPIPE, as with tarvo.h.
#ifndef TARVO_HPP
#define TARVO_HPP

#include "tarvo.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace tarvo {

// Most bytes that one request or response can carry. None can be empty.
inline constexpr std::size_t MAX_PAYLOAD = 4000;

// What a result of tarvo.h means as an error code; no error for results from 0 up.
inline std::error_code ToError(int result) noexcept {
    if (result >= 0) {
        return {};
    }
    return {result == -1 ? EPIPE : -result, std::generic_category()};
}

namespace detail {

inline void ThrowIf(const std::error_code &error, const char *what) {
    if (error) {
        throw std::system_error(error, what);
    }
}

// A duration as tarvo.h takes it. Below zero, as deadlines that have passed yield, is no wait and not an endless one.
constexpr int Milliseconds(std::chrono::milliseconds time, int least) noexcept {
    if (time.count() < least) {
        return least;
    }
    constexpr int most = std::numeric_limits<int>::max();
    return time.count() > most ? most : static_cast<int>(time.count());
}

// A C string would end at the zero byte, and name somebody else.
inline bool HoldsZero(const std::string &name) noexcept { return name.find('\0') != std::string::npos; }

} // namespace detail

// The bytes of a request or response to be sent: a view, so what it was made from must live until the call returns.
// Made from string literals (without their NUL), strings, string views, and containers of chars, bytes or 8-bit ints.
class Payload {
public:
    Payload(const void *bytes, std::size_t size) noexcept
        : data_(static_cast<const char *>(bytes)), size_(Bounded(size)) {}
    Payload(const char *text) noexcept : Payload(std::string_view(text)) {}
    template <typename Container,
              typename = std::enable_if_t<
                  sizeof(*std::declval<const Container &>().data()) == 1 &&
                  std::is_convertible_v<decltype(std::declval<const Container &>().size()), std::size_t>>>
    Payload(const Container &container) noexcept : Payload(container.data(), container.size()) {}

    // For the structures of tarvo.h, which sends from `data` and never writes to it.
    char *Data() const noexcept { return const_cast<char *>(data_); }
    uint32_t Size() const noexcept { return size_; }

private:
    // Sizes beyond 32 bits stay too long instead of becoming something short.
    static constexpr uint32_t Bounded(std::size_t size) noexcept {
        constexpr uint32_t most = std::numeric_limits<uint32_t>::max();
        return size > most ? most : static_cast<uint32_t>(size);
    }

    const char *data_;
    uint32_t size_;
};

// The answer to a call. Owns: its bytes. Threads: one at a time.
class Response {
public:
    Response() noexcept = default;
    Response(Response &&other) noexcept : raw_(std::exchange(other.raw_, TarvoResponse{})) {}
    Response &operator=(Response &&other) noexcept {
        std::swap(raw_, other.raw_);
        return *this;
    }
    ~Response() { DestroyResponse(&raw_); }

    // The id that the library gave to the request.
    uint32_t Id() const noexcept { return raw_.id; }
    // Valid as long as this object. Empty when this one was moved from or its call has failed, and only then.
    std::string_view Bytes() const noexcept {
        return raw_.data == nullptr ? "" : std::string_view(raw_.data, raw_.size);
    }

private:
    friend class PipeView;
    TarvoResponse raw_{};
};

// A pipe that somebody else owns: the library, for the pipes of a server, or a Pipe. Costs as much as the int that it
// is, and may outlive the pipe: its functions then fail with no_such_file_or_directory (ENOENT). Threads: any.
class PipeView {
public:
    PipeView() noexcept = default;
    explicit PipeView(int handle) noexcept : handle_(handle) {}

    // The handle of tarvo.h; 0 for none.
    int Handle() const noexcept { return handle_; }

    // TarvoSendRequest: one-way, without waiting. `id` reaches the remote's callback unchanged.
    void Send(Payload payload, uint32_t id = 0) const {
        std::error_code error;
        Send(payload, id, error);
        detail::ThrowIf(error, "tarvo send");
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
        detail::ThrowIf(error, "tarvo call");
        return response;
    }
    Response Call(Payload payload, std::chrono::milliseconds timeout, std::error_code &error) const noexcept {
        return CallFor(payload, detail::Milliseconds(timeout, 0), error);
    }

    // TarvoRPCSync: waits until the answer comes or the pipe closes, however long that takes.
    Response CallWithoutLimit(Payload payload) const {
        std::error_code error;
        Response response = CallWithoutLimit(payload, error);
        detail::ThrowIf(error, "tarvo call");
        return response;
    }
    Response CallWithoutLimit(Payload payload, std::error_code &error) const noexcept {
        return CallFor(payload, -1, error);
    }

    // TarvoSendResponse: answers the request `id` that came over this pipe.
    void Reply(uint32_t id, Payload payload) const {
        std::error_code error;
        Reply(id, payload, error);
        detail::ThrowIf(error, "tarvo reply");
    }
    void Reply(uint32_t id, Payload payload, std::error_code &error) const noexcept {
        TarvoResponse response{id, payload.Data(), payload.Size()};
        error = ToError(TarvoSendResponse(handle_, &response));
    }

    // TarvoCleanPipe: removes the two files of a pipe of TARVO_MODE_CLIENT, which stays open.
    void RemoveFiles() const {
        std::error_code error;
        RemoveFiles(error);
        detail::ThrowIf(error, "tarvo remove files");
    }
    void RemoveFiles(std::error_code &error) const noexcept { error = ToError(TarvoCleanPipe(handle_)); }

    // TarvoClosePipe. No error when there is nothing to close.
    void Close() const {
        std::error_code error;
        Close(error);
        detail::ThrowIf(error, "tarvo close");
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
    void Reply(Payload payload) const { pipe_.Reply(id_, payload); }
    void Reply(Payload payload, std::error_code &error) const noexcept { pipe_.Reply(id_, payload, error); }

private:
    PipeView pipe_;
    uint32_t id_;
};

// A request as its callback sees it: a view that is valid until that callback returns. Copy the bytes to keep them.
class Request {
public:
    Request(int handle, const TarvoRequest &raw) noexcept : pipe_(handle), raw_(raw) {}

    std::string_view Bytes() const noexcept { return {raw_.data, raw_.size}; }
    uint32_t Id() const noexcept { return raw_.id; }
    PipeView From() const noexcept { return pipe_; }
    // PipeView::Reply, to the sender of this request.
    void Reply(Payload payload) const { pipe_.Reply(raw_.id, payload); }
    void Reply(Payload payload, std::error_code &error) const noexcept { pipe_.Reply(raw_.id, payload, error); }
    // To answer later.
    Ticket Keep() const noexcept { return {pipe_, raw_.id}; }

private:
    PipeView pipe_;
    const TarvoRequest &raw_;
};

// How to open a pipe: TarvoAttr with names. Setters return the object: Options().Timeout(2s).As("me"). What is not set
// keeps the default of TarvoAttr. Threads: one at a time.
class Options {
public:
    // The name under which the remote knows this process. Otherwise the process name.
    Options &As(std::string name) {
        self_ = std::move(name);
        return *this;
    }
    // How long the open may wait for the remote, at least 1 ms. Otherwise it waits without limit.
    Options &Timeout(std::chrono::milliseconds timeout) noexcept {
        attr_.timeout = detail::Milliseconds(timeout, 1);
        return *this;
    }
    // Which side creates the files. Otherwise TARVO_MODE_CLIENT, the side that waits for them.
    Options &Mode(TarvoMode mode) noexcept {
        attr_.mode = mode;
        return *this;
    }
    // The group that owns the files.
    Options &Group(uint32_t gid) noexcept {
        attr_.gid = gid;
        return *this;
    }
    // Scheduling of the threads that receive and run the callbacks. Otherwise normal.
    Options &Priority(TarvoPriority priority) noexcept {
        attr_.priority = priority;
        return *this;
    }
    // Up to 200 callbacks at the same time, on as many threads. Otherwise one after another, in order of arrival.
    Options &Concurrent(bool concurrent = true) noexcept {
        attr_.isConcur = concurrent;
        return *this;
    }
    // Where the remote lives, its process id and its security context, for labels.
    Options &Remote(TarvoDomain domain, int32_t pid = -1, std::string context = "") {
        attr_.domain = domain;
        attr_.targetPid = pid;
        context_ = std::move(context);
        return *this;
    }
    // Runs `callback(const Request &)` for each request of the remote, on a thread of the library. Without a callback
    // up to 1000 requests are kept, and a remote that closes goes unnoticed until the next call.
    template <typename Callback>
    Options &OnRequest(Callback callback) {
        return OnRequest(std::move(callback), [](PipeView) {});
    }
    // The same, and `closed(PipeView)` once the remote has closed, after all of its requests. The library closes the
    // pipe when `closed` returns.
    template <typename Callback, typename Closed>
    Options &OnRequest(Callback callback, Closed closed) {
        attr_.callback = [callback = std::move(callback), closed = std::move(closed)](int handle,
                                                                                      TarvoRequest *request) mutable {
            if (request == nullptr) {
                closed(PipeView(handle));
            } else {
                const Request view(handle, *request);
                callback(view);
            }
        };
        return *this;
    }

private:
    friend class Pipe;
    // Opens with the names in place: the strings stay here until it returns.
    int OpenBy(int (*open)(TarvoAttr *), const std::string &target) noexcept {
        if (detail::HoldsZero(target) || (self_ && detail::HoldsZero(*self_)) || detail::HoldsZero(context_)) {
            return -EINVAL;
        }
        attr_.targetName = target.c_str();
        attr_.selfName = self_ ? self_->c_str() : nullptr;
        attr_.targetCon = context_.c_str();
        return open(&attr_);
    }

    TarvoAttr attr_;
    std::optional<std::string> self_;
    std::string context_;
};

// A pipe of this process; closed with this object. There is one pipe between two names in a process: an open of one
// that is open already yields it again, so keep a single Pipe for it. Threads: one at a time for the object itself; the
// inherited functions any.
class Pipe : public PipeView {
public:
    Pipe() noexcept = default;
    // Takes over a handle of tarvo.h.
    explicit Pipe(int handle) noexcept : PipeView(handle) {}
    Pipe(Pipe &&other) noexcept : PipeView(other.Release()) {}
    Pipe &operator=(Pipe &&other) noexcept {
        Pipe taken(std::move(other));
        std::swap(static_cast<PipeView &>(*this), static_cast<PipeView &>(taken));
        return *this;
    }
    ~Pipe() {
        if (*this) {
            TarvoClosePipe(Handle());
        }
    }

    // TarvoOpen: by arrangement with `target`, which opens its own end in the opposite mode. On an error the object is
    // empty. A name that holds a zero byte is invalid_argument.
    static Pipe Open(const std::string &target, Options options) {
        std::error_code error;
        Pipe pipe = Open(target, std::move(options), error);
        detail::ThrowIf(error, "tarvo open");
        return pipe;
    }
    static Pipe Open(const std::string &target, Options options, std::error_code &error) noexcept {
        return FromResult(options.OpenBy([](TarvoAttr *attr) { return TarvoOpen(attr); }, target), error);
    }

    // TarvoCreateClient: to the server that runs under the name `target`; no_such_device_or_address (ENXIO) when none
    // does. Otherwise as Open.
    static Pipe Connect(const std::string &target, Options options) {
        std::error_code error;
        Pipe pipe = Connect(target, std::move(options), error);
        detail::ThrowIf(error, "tarvo connect");
        return pipe;
    }
    static Pipe Connect(const std::string &target, Options options, std::error_code &error) noexcept {
        return FromResult(options.OpenBy(TarvoCreateClient, target), error);
    }

    // Whether it owns a handle. The remote may have closed nevertheless.
    explicit operator bool() const noexcept { return Handle() > 0; }
    // Gives the handle away; this object is then empty.
    int Release() noexcept { return std::exchange(static_cast<PipeView &>(*this), PipeView()).Handle(); }

private:
    static Pipe FromResult(int result, std::error_code &error) noexcept {
        error = ToError(result);
        return Pipe(result > 0 ? result : 0);
    }
};

} // namespace tarvo

#include "tarvo_server.hpp"

#endif // TARVO_HPP
