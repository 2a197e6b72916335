// Opening links; part of tarvo_loop.hpp.
#ifndef TARVO_LINK_HPP
#define TARVO_LINK_HPP

#include "tarvo_event_loop.hpp"
#include "tarvo_link_handlers.hpp"

#include <optional>

namespace tarvo {

// What a link calls: any callables, each with a type of its own, so that calling them costs no more than the C form.
// Setters return new handlers: LinkHandlers().OnOpened(...).OnRequest(...). All run on the loop, one at a time. The
// Link keeps them until it is closed and none of them runs; std::ref makes it use an object of the caller's. They may
// close or destroy the link, the loop, and anything else. An exception that leaves one ends the process.
template <typename Opened = detail::NoHandler, typename Request = detail::NoHandler,
          typename Closed = detail::NoHandler, typename Writable = detail::NoHandler>
class LinkHandlers : public detail::HandlerSetters<LinkHandlers, Opened, Request, Closed, Writable> {
    using Setters = detail::HandlerSetters<LinkHandlers, Opened, Request, Closed, Writable>;

public:
    LinkHandlers() : Setters({}) {}

    // `callback(LinkView, std::error_code)`, once: the link is open, or its open has failed: timed_out,
    // no_such_device_or_address (ENXIO) for no such server, or what else went wrong.
    template <typename Callback>
    auto OnOpened(Callback callback) && {
        static_assert(std::is_invocable_v<Callback &, LinkView, std::error_code>,
                      "tarvo: OnOpened takes a callable for (tarvo::LinkView, std::error_code)");
        return this->WithFirst(std::move(callback));
    }

private:
    template <template <typename, typename, typename, typename> class, typename, typename, typename, typename>
    friend class detail::HandlerSetters;
    friend class Link;
    using typename Setters::Set;

    explicit LinkHandlers(Set &&set) : Setters(std::move(set)) {}
};

// How to open a link: TarvoLinkOptions with names. Setters return the object. Threads: one at a time.
class LinkOptions {
public:
    // The name under which the remote knows this process. Otherwise the process name.
    LinkOptions &As(std::string name) {
        self_ = std::move(name);
        return *this;
    }
    // How long the whole open may take. Otherwise there is no limit.
    LinkOptions &Timeout(std::chrono::milliseconds timeout) noexcept {
        timeoutMs_ = detail::LoopTimeout(timeout);
        return *this;
    }
    // The group that owns the files.
    LinkOptions &Group(uint32_t gid) noexcept {
        gid_ = gid;
        return *this;
    }
    // For Link::Open: which side creates the files. Otherwise TARVO_MODE_CLIENT, the side that waits for them.
    LinkOptions &Mode(TarvoMode mode) noexcept {
        mode_ = mode;
        return *this;
    }

private:
    friend class Link;
    std::optional<std::string> self_;
    int32_t timeoutMs_ = -1;
    uint32_t gid_ = TARVO_LOOP_ANY_GROUP;
    TarvoMode mode_ = TARVO_MODE_CLIENT;
};

// A link of this process; closed with this object. Can be moved, also while it is open: its callables stay where they
// are. Empty once it was moved from or closed; also of use no more when its loop is destroyed. Threads: the loop's; on
// another one it cannot be closed, and what it owns is left behind.
class [[nodiscard]] Link : public LinkView {
public:
    Link() noexcept = default;
    Link(Link &&other) noexcept : LinkView(other), owned_(std::exchange(other.owned_, nullptr)) {
        other.link_ = nullptr;
        other.block_ = nullptr;
    }
    Link &operator=(Link &&other) noexcept {
        Link taken(std::move(other));
        std::swap(link_, taken.link_);
        std::swap(block_, taken.block_);
        std::swap(owned_, taken.owned_);
        return *this;
    }
    ~Link() { Close(); }

    // A link to the server of the name `target`: begins to open it; OnOpened tells the end. On an error the object is
    // empty, and nothing is called. file_exists: this loop has a link of the same two names.
    template <typename... Handlers>
    static Link Connect(Loop &loop, const std::string &target, const LinkOptions &options,
                        LinkHandlers<Handlers...> handlers) {
        std::error_code error;
        Link link = Connect(loop, target, options, std::move(handlers), error);
        detail::ThrowIf(error, {"tarvo link to ", target});
        return link;
    }
    template <typename... Handlers>
    static Link Connect(Loop &loop, const std::string &target, const LinkOptions &options,
                        LinkHandlers<Handlers...> handlers, std::error_code &error) noexcept {
        return Begin(loop, TARVO_LINK_TO_SERVER, target, options, std::move(handlers.set_), error);
    }

    // A link by arrangement with `target`, which opens its own end in the opposite mode. Otherwise as Connect.
    template <typename... Handlers>
    static Link Open(Loop &loop, const std::string &target, const LinkOptions &options,
                     LinkHandlers<Handlers...> handlers) {
        std::error_code error;
        Link link = Open(loop, target, options, std::move(handlers), error);
        detail::ThrowIf(error, {"tarvo link to ", target});
        return link;
    }
    template <typename... Handlers>
    static Link Open(Loop &loop, const std::string &target, const LinkOptions &options,
                     LinkHandlers<Handlers...> handlers, std::error_code &error) noexcept {
        const bool creates = options.mode_ == TARVO_MODE_SERVER;
        return Begin(loop, creates ? TARVO_LINK_ARRANGED_SERVER : TARVO_LINK_ARRANGED_CLIENT, target, options,
                     std::move(handlers.set_), error);
    }

    explicit operator bool() const noexcept { return owned_ != nullptr && owned_->link != nullptr; }

    // As LinkView's; no error when there is nothing to close.
    std::error_code Close() noexcept {
        if (owned_ == nullptr) {
            return {};
        }
        // It may have been closed by a view of it, or with the loop.
        const std::error_code error = detail::LoopError(TarvoLinkClose(owned_->link));
        link_ = nullptr;
        block_ = nullptr;
        detail::Block *const block = std::exchange(owned_, nullptr);
        if (!error) {
            block->link = nullptr;
            block->Abandon();
        }
        return error;
    }

private:
    template <typename Set>
    static Link Begin(Loop &loop, TarvoLinkKind kind, const std::string &target, const LinkOptions &options, Set &&set,
                      std::error_code &error) noexcept {
        using Block = detail::HandlerBlock<Set, false>;
        if (!loop || detail::HoldsZero(target) || (options.self_ && detail::HoldsZero(*options.self_))) {
            error = std::make_error_code(std::errc::invalid_argument);
            return {};
        }
        std::unique_ptr<Block> block = detail::MakeBlock<Block>(std::forward<Set>(set), error);
        if (block == nullptr) {
            return {};
        }
        const TarvoLinkCallbacks callbacks = Block::Table();
        TarvoLinkOptions raw{};
        raw.size = sizeof(raw);
        raw.kind = kind;
        raw.target = target.c_str();
        raw.self = options.self_ ? options.self_->c_str() : nullptr;
        raw.gid = options.gid_;
        raw.timeoutMs = options.timeoutMs_;
        raw.context = block.get();
        raw.callbacks = &callbacks;
        error = detail::LoopError(TarvoLinkOpen(loop.Handle(), &raw, &block->link));
        return error ? Link() : Link(loop, *block.release());
    }

    Link(Loop &loop, detail::Block &block) noexcept : LinkView(block.link, &block), owned_(&block) {
        loop.state_->Add(block);
    }

    detail::Block *owned_ = nullptr;
};

} // namespace tarvo

#endif // TARVO_LINK_HPP
