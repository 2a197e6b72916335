// Links as their callbacks see them: sending, calling, answering; part of tarvo_loop.hpp.
#ifndef TARVO_LINK_VIEW_HPP
#define TARVO_LINK_VIEW_HPP

#include "tarvo_loop_parts.hpp"
#include "tarvo_stats.h"

#include <functional>

namespace tarvo {
namespace detail {
struct LinkAccess;
} // namespace detail

// A link that somebody else owns: a Link, or the loop for the links of a service's clients. Two pointers; copies
// freely. Must not be used when the link has been closed, but by Close of a Link. Threads: the loop's.
class LinkView {
public:
    LinkView() noexcept = default;

    // The handle of tarvo_loop.h; null for none.
    [[nodiscard]] TarvoLink *Handle() const noexcept { return link_; }
    explicit operator bool() const noexcept { return link_ != nullptr; }

    // TarvoLinkPeer: who is at the other end. Valid until the link is closed.
    [[nodiscard]] std::string_view Peer() const noexcept {
        const char *const name = TarvoLinkPeer(link_);
        return name == nullptr ? std::string_view() : name;
    }

    // TarvoLinkStats (tarvo_stats.h): what is counted of the link. no_message_available (ENODATA) where nothing is.
    [[nodiscard]] std::error_code Stats(TarvoStatsPipe &stats) const noexcept {
        return detail::LoopError(TarvoLinkStats(link_, &stats));
    }

    // TarvoLinkSend: one-way. resource_unavailable_try_again (EAGAIN) when there is no room: nothing is taken until
    // OnWritable. not_connected before the link is open, broken_pipe when the remote has gone.
    [[nodiscard]] std::error_code Send(Payload payload) const noexcept {
        return detail::LoopError(TarvoLinkSend(link_, detail::BytesOf(payload)));
    }

    // TarvoLinkCall: runs `done(std::error_code, std::string_view answer)` once, later, on the loop: with the answer,
    // or with why there is none: timed_out, broken_pipe, operation_canceled. On an error of the call itself `done`
    // never runs. A `done` that is no larger than a pointer, such as a lambda that captures `this`, needs no memory;
    // for others the loop uses the memory of earlier calls again. `call` gets the number for Cancel.
    template <typename Done>
    [[nodiscard]] std::error_code Call(Payload payload, std::chrono::milliseconds timeout, Done &&done,
                                       int64_t &call) const noexcept {
        using Stored = std::decay_t<Done>;
        static_assert(std::is_invocable_v<Stored &, std::error_code, std::string_view>,
                      "tarvo: Call takes a callable for (std::error_code, std::string_view)");
        if constexpr (detail::FITS_CONTEXT<Stored>) {
            return Start(payload, timeout, DoneOfContext<Stored>, detail::ToContext<Stored>(done), call);
        } else if constexpr (detail::CallNode::HOLDS<Stored>) {
            return CallKept<Stored>(payload, timeout, std::forward<Done>(done), call);
        } else {
            // Its address fits.
            std::unique_ptr<Stored> large(new (std::nothrow) Stored(std::forward<Done>(done)));
            if (large == nullptr) {
                return std::make_error_code(std::errc::not_enough_memory);
            }
            return Call(
                payload, timeout,
                [large = std::move(large)](std::error_code error, std::string_view answer) { (*large)(error, answer); },
                call);
        }
    }
    template <typename Done>
    [[nodiscard]] std::error_code Call(Payload payload, std::chrono::milliseconds timeout, Done &&done) const noexcept {
        int64_t call = 0;
        return Call(payload, timeout, std::forward<Done>(done), call);
    }

    // TarvoLinkCancel: `done` of the call runs with operation_canceled in the next dispatch. no_such_file_or_directory
    // when it has ended.
    [[nodiscard]] std::error_code Cancel(int64_t call) const noexcept {
        return detail::LoopError(TarvoLinkCancel(link_, call));
    }

    // TarvoLinkCallSync: waits for the answer; nothing else of the loop runs meanwhile. Works on a link that is still
    // opening, too. `size` is the room at `answer`, then the bytes written there.
    [[nodiscard]] std::error_code CallSync(Payload payload, std::chrono::milliseconds timeout, char *answer,
                                           uint32_t &size) const noexcept {
        return detail::LoopError(
            TarvoLinkCallSync(link_, detail::BytesOf(payload), detail::LoopTimeout(timeout), answer, &size));
    }
    [[nodiscard]] std::error_code CallSync(Payload payload, std::chrono::milliseconds timeout,
                                           std::string &answer) const {
        char bytes[MAX_PAYLOAD];
        uint32_t size = MAX_PAYLOAD;
        const std::error_code error = CallSync(payload, timeout, bytes, size);
        if (!error) {
            answer.assign(bytes, size);
        }
        return error;
    }

    // TarvoLinkReply: answers a request, once. resource_unavailable_try_again when there is no room, and the request
    // still waits; no_such_file_or_directory when it has been answered.
    [[nodiscard]] std::error_code Reply(uint32_t request, Payload payload) const noexcept {
        return detail::LoopError(TarvoLinkReply(link_, request, detail::BytesOf(payload)));
    }

    // TarvoLinkHold and TarvoLinkFlush; see Held.
    std::error_code Hold() const noexcept { return detail::LoopError(TarvoLinkHold(link_)); }
    std::error_code Flush() const noexcept { return detail::LoopError(TarvoLinkFlush(link_)); }

    // TarvoLinkClose, at any moment. Nothing of the link runs any more but the ends of its calls.
    std::error_code Close() noexcept {
        const std::error_code error = detail::LoopError(TarvoLinkClose(link_));
        if (error || link_ == nullptr) {
            return error;
        }
        detail::Block &block = *std::exchange(block_, nullptr);
        TarvoLink *const link = std::exchange(link_, nullptr);
        if (block.link == link) {
            block.link = nullptr;
            return {};
        }
        if (block.closing == link) {
            block.closing = nullptr;
        }
        block.ClientGone();
        return {};
    }

    friend bool operator==(LinkView one, LinkView other) noexcept { return one.link_ == other.link_; }
    friend bool operator!=(LinkView one, LinkView other) noexcept { return one.link_ != other.link_; }

protected:
    LinkView(TarvoLink *link, detail::Block *block) noexcept : link_(link), block_(block) {}

    TarvoLink *link_ = nullptr;
    detail::Block *block_ = nullptr;

    // A call whose callable stays in one place until it has ended.
    template <typename Stored, typename Done>
    std::error_code CallKept(Payload payload, std::chrono::milliseconds timeout, Done &&done, int64_t &call,
                             Stored **where = nullptr) const noexcept {
        if (block_ == nullptr) {
            return std::make_error_code(std::errc::invalid_argument);
        }
        detail::LoopState &loop = *block_->loop;
        detail::CallNode *const node = loop.Keep<Stored>(std::forward<Done>(done));
        if (node == nullptr) {
            return std::make_error_code(std::errc::not_enough_memory);
        }
        const std::error_code error = Start(payload, timeout, DoneOfNode<Stored>, node, call);
        if (error) {
            loop.Drop(*node);
        } else if (where != nullptr) {
            *where = &detail::LoopState::In<Stored>(*node);
        }
        return error;
    }

private:
    friend struct detail::LinkAccess;

    std::error_code Start(Payload payload, std::chrono::milliseconds timeout, TarvoDone done, void *context,
                          int64_t &call) const noexcept {
        const int64_t result =
            TarvoLinkCall(link_, detail::BytesOf(payload), detail::LoopTimeout(timeout), done, context);
        if (result > 0) {
            call = result;
        }
        return detail::LoopError(result);
    }

    template <typename Stored>
    static void DoneOfContext(void *context, int result, TarvoBytes answer) noexcept {
        detail::RunContext<Stored>(context, detail::LoopError(result), detail::ViewOf(answer));
    }

    template <typename Stored>
    static void DoneOfNode(void *context, int result, TarvoBytes answer) noexcept {
        detail::CallNode &node = *static_cast<detail::CallNode *>(context);
        // The node is free before the callable runs, which may destroy the loop.
        Stored done(std::move(detail::LoopState::In<Stored>(node)));
        node.loop->Drop(node);
        done(detail::LoopError(result), detail::ViewOf(answer));
    }
};

// Which request to answer, for an answer that is given after the callback has returned: while the link is not closed.
// Copies freely. Threads: the loop's.
class LinkTicket {
public:
    LinkTicket(LinkView link, uint32_t id) noexcept : link_(link), id_(id) {}
    [[nodiscard]] LinkView From() const noexcept { return link_; }
    // LinkView::Reply.
    [[nodiscard]] std::error_code Reply(Payload payload) const noexcept { return link_.Reply(id_, payload); }

private:
    LinkView link_;
    uint32_t id_;
};

// A request as its callback sees it: a view that is valid until that callback returns. Copy the bytes to keep them.
class LinkRequest {
public:
    LinkRequest(LinkView link, uint32_t id, TarvoBytes bytes) noexcept : link_(link), id_(id), bytes_(bytes) {}

    [[nodiscard]] std::string_view Bytes() const noexcept { return detail::ViewOf(bytes_); }
    [[nodiscard]] std::string Text() const { return std::string(Bytes()); }
    [[nodiscard]] uint32_t Id() const noexcept { return id_; }
    [[nodiscard]] LinkView From() const noexcept { return link_; }
    // LinkView::Reply, to the sender of this request.
    [[nodiscard]] std::error_code Reply(Payload payload) const noexcept { return link_.Reply(id_, payload); }
    // To answer later.
    [[nodiscard]] LinkTicket Keep() const noexcept { return {link_, id_}; }

private:
    LinkView link_;
    uint32_t id_;
    TarvoBytes bytes_;
};

// What is sent on the link while this lives goes out together at its end, outside of a dispatch too. The link must not
// be closed meanwhile. Threads: the loop's.
class [[nodiscard]] Held {
public:
    explicit Held(LinkView link) noexcept : link_(link) { (void)link_.Hold(); }
    ~Held() { (void)link_.Flush(); }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

private:
    LinkView link_;
};

namespace detail {

// For the other parts of these headers.
struct LinkAccess {
    static LinkView View(TarvoLink *link, Block *block) noexcept { return {link, block}; }
    // Null when the loop has been destroyed.
    static LoopState *LoopOf(LinkView link) noexcept { return link.block_ == nullptr ? nullptr : link.block_->loop; }

    template <typename Stored>
    static std::error_code Call(LinkView link, Payload payload, std::chrono::milliseconds timeout, Stored &&done,
                                int64_t &call, Stored *&where) noexcept {
        return link.CallKept<Stored>(payload, timeout, std::forward<Stored>(done), call, &where);
    }
};

} // namespace detail
} // namespace tarvo

// For sets and maps of what belongs to each client.
template <>
struct std::hash<tarvo::LinkView> {
    std::size_t operator()(tarvo::LinkView link) const noexcept { return std::hash<TarvoLink *>()(link.Handle()); }
};

#endif // TARVO_LINK_VIEW_HPP
