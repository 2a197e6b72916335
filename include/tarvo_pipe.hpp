// Opening pipes; part of tarvo.hpp.
#ifndef TARVO_PIPE_HPP
#define TARVO_PIPE_HPP

#include "tarvo_names.hpp"
#include "tarvo_owners.hpp"
#include "tarvo_request.hpp"

#include <optional>

namespace tarvo {

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
    // Runs `callback(const Request &)` for each request of the remote, on a thread of the library. What it returns is
    // the reply, if it returns something that converts to a Payload; what cannot be sent is lost, as with Reply.
    // Without a callback up to 1000 requests are kept, and a remote that closes goes unnoticed until the next call.
    //
    // All requests of a pipe run one and the same object, a copy that the open takes, so that it may count or keep a
    // cache. On a serial pipe never two threads are in it at once; on a concurrent one up to 200 are, and it has to
    // guard what it changes. It lives until the pipe is closed and the last of its requests has returned.
    template <typename Callback>
    Options &OnRequest(Callback callback) {
        return OnRequest(std::move(callback), [](PipeView) {});
    }
    // The same, and `closed(PipeView)` once the remote has closed. The library closes the pipe when `closed` returns.
    // On a serial pipe it comes after all requests. On a concurrent one it has a thread of its own as they do: requests
    // may still run beside it, and some that came before it may start after it.
    template <typename Callback, typename Closed>
    Options &OnRequest(Callback callback, Closed closed) {
        static_assert(std::is_invocable_v<Closed &, PipeView>,
                      "tarvo: `closed` takes a callable for (tarvo::PipeView)");
        callbacks_.emplace();
        callbacks_->request = detail::MakeRequestHandler(std::move(callback));
        callbacks_->closed = std::move(closed);
        return *this;
    }

private:
    friend class Pipe;
    friend class Client;

    // What no connect can do. Refused here, where it is easily told; the server's end of it would show much later.
    const char *ConnectFault() const {
        if (attr_.mode != TARVO_MODE_CLIENT) {
            return " (servers create the files: the mode must be TARVO_MODE_CLIENT)";
        }
        const bool tooLong = self_ && self_->size() + 1 + std::to_string(getpid()).size() > MAX_NAME;
        return tooLong ? " (the own name with _ and the process id has more than 100 characters)" : nullptr;
    }

    // Opens with the names in place: the strings stay here until it returns. The handle, or a negated errno.
    int OpenBy(int (*open)(TarvoAttr *), const std::string &target) noexcept {
        if (detail::HoldsZero(target) || (self_ && detail::HoldsZero(*self_)) || detail::HoldsZero(context_)) {
            return -EINVAL;
        }
        attr_.targetName = target.c_str();
        attr_.selfName = self_ ? self_->c_str() : nullptr;
        attr_.targetCon = context_.c_str();
        try {
            const std::string_view zero("\0", 1);
            const std::string key =
                detail::Join({open == TarvoCreateClient ? "C" : "O", self_ ? *self_ : "", zero, target});
            return detail::Owners::Get().Open(open, attr_, std::move(callbacks_), key);
        } catch (const std::bad_alloc &) {
            return -ENOMEM;
        } catch (const std::system_error &failure) { // of a mutex
            return -failure.code().value();
        }
    }

    TarvoAttr attr_;
    std::optional<std::string> self_;
    std::string context_;
    std::optional<detail::Callbacks> callbacks_;
};

// A pipe of this process; closed with this object. There is one pipe between two names in a process, and one Pipe owns
// it: to open it once more while it has an owner is file_exists (EEXIST). After the remote has closed, too, the old
// object must go first: `pipe = {}; pipe = tarvo::Pipe::Connect("server");`. An open that follows one that has failed
// goes on with that one's options, but with its own callbacks; after one without callbacks it can have none
// (file_exists). A pipe that the functions of tarvo.h have opened is file_exists for an open with callbacks, and taken
// over by one without.
// Threads: one at a time for the object itself; the inherited functions any.
class [[nodiscard]] Pipe : public PipeView {
public:
    Pipe() noexcept = default;
    // Takes over a handle of tarvo.h.
    explicit Pipe(int handle) noexcept : PipeView(handle) {
        if (*this) {
            detail::Owners::Get().Add(handle);
        }
    }
    Pipe(Pipe &&other) noexcept : PipeView(other.Take()) {}
    Pipe &operator=(Pipe &&other) noexcept {
        Pipe taken(std::move(other));
        std::swap(static_cast<PipeView &>(*this), static_cast<PipeView &>(taken));
        return *this;
    }
    ~Pipe() {
        if (*this) {
            detail::Owners::Get().Close(Handle());
        }
    }

    // TarvoOpen: by arrangement with `target`, which opens its own end in the opposite mode. On an error the object is
    // empty. A name that holds a zero byte is invalid_argument.
    static Pipe Open(const std::string &target, Options options = {}) {
        std::error_code error;
        Pipe pipe = Open(target, std::move(options), error);
        detail::ThrowIf(error, {"tarvo open to ", target});
        return pipe;
    }
    static Pipe Open(const std::string &target, Options options, std::error_code &error) noexcept {
        return FromResult(options.OpenBy([](TarvoAttr *attr) { return TarvoOpen(attr); }, target), error);
    }

    // TarvoCreateClient: to the server that runs under the name `target`; no_such_device_or_address (ENXIO) when none
    // does, with the reason in what(). Otherwise as Open. Refused at once as invalid_argument: another mode than
    // TARVO_MODE_CLIENT, and an own name that has more than 100 characters with "_" and the process id behind it.
    static Pipe Connect(const std::string &target, Options options = {}) {
        const char *const fault = options.ConnectFault();
        std::error_code error;
        Pipe pipe = Connect(target, std::move(options), error);
        if (error == std::errc::no_such_device_or_address) {
            detail::ThrowIf(error, {"tarvo connect to ", target, detail::WhyUnreachable(target)});
        }
        detail::ThrowIf(error, {"tarvo connect to ", target, fault != nullptr ? fault : ""});
        return pipe;
    }
    static Pipe Connect(const std::string &target, Options options, std::error_code &error) noexcept {
        return FromResult(options.ConnectFault() == nullptr ? options.OpenBy(TarvoCreateClient, target) : -EINVAL,
                          error);
    }
    static Pipe Connect(const std::string &target, std::error_code &error) { return Connect(target, Options(), error); }

    // Whether it owns a handle. The remote may have closed nevertheless.
    [[nodiscard]] explicit operator bool() const noexcept { return Handle() > 0; }
    // Gives the handle away; this object is then empty.
    [[nodiscard]] int Release() noexcept {
        detail::Owners::Get().Remove(Handle());
        return Take();
    }

private:
    struct Owned {};
    Pipe(int handle, Owned) noexcept : PipeView(handle) {}

    int Take() noexcept { return std::exchange(static_cast<PipeView &>(*this), PipeView()).Handle(); }

    static Pipe FromResult(int result, std::error_code &error) noexcept {
        error = ToError(result);
        return {result > 0 ? result : 0, Owned()};
    }
};

} // namespace tarvo

#endif // TARVO_PIPE_HPP
