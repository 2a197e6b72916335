// From the callbacks of tarvo_loop.h to the callables of its users; an inner part of tarvo_loop.hpp.
#ifndef TARVO_LINK_HANDLERS_HPP
#define TARVO_LINK_HANDLERS_HPP

#include "tarvo_link_view.hpp"

namespace tarvo::detail {

struct NoHandler {};

template <typename Handler>
inline constexpr bool IS_SET = !std::is_same_v<Handler, NoHandler>;

// The callables of a link or service. `first` is that of the link's opening, or of the service's clients.
template <typename First, typename Request, typename Closed, typename Writable>
struct HandlerSet {
    First first;
    Request request;
    Closed closed;
    Writable writable;
};

template <typename Callable>
constexpr void CheckRequestHandler() {
    constexpr bool takesRequests = std::is_invocable_v<Callable &, const LinkRequest &>;
    static_assert(takesRequests, "tarvo: OnRequest takes a callable for (const tarvo::LinkRequest &)");
    if constexpr (takesRequests) {
        using Result = std::invoke_result_t<Callable &, const LinkRequest &>;
        static_assert(std::is_void_v<Result> || std::is_convertible_v<Result, Payload>,
                      "tarvo: an OnRequest callback returns the reply, as something that converts to tarvo::Payload, "
                      "or nothing");
    }
}

// The setters that the handlers of links and those of services have in common; `Handlers` is the template of the two
// whose base it is. Each returns new handlers.
template <template <typename, typename, typename, typename> class Handlers, typename First, typename Request,
          typename Closed, typename Writable>
class HandlerSetters {
public:
    // `callback(const LinkRequest &)` for each request of the remote. What it returns is the reply, if it returns
    // something that converts to a Payload; one for which there is no room is lost: where that may be, use Reply.
    template <typename Callback>
    auto OnRequest(Callback callback) && {
        CheckRequestHandler<Callback>();
        return Made(std::move(set_.first), std::move(callback), std::move(set_.closed), std::move(set_.writable));
    }
    // `callback(LinkView)`, once, when the remote has closed or died: after all its requests and the ends of all calls.
    // The link of a service's client is closed when it returns.
    template <typename Callback>
    auto OnClosed(Callback callback) && {
        static_assert(std::is_invocable_v<Callback &, LinkView>,
                      "tarvo: OnClosed takes a callable for (tarvo::LinkView)");
        return Made(std::move(set_.first), std::move(set_.request), std::move(callback), std::move(set_.writable));
    }
    // `callback(LinkView)` when there is room again, once after something was refused for want of it.
    template <typename Callback>
    auto OnWritable(Callback callback) && {
        static_assert(std::is_invocable_v<Callback &, LinkView>,
                      "tarvo: OnWritable takes a callable for (tarvo::LinkView)");
        return Made(std::move(set_.first), std::move(set_.request), std::move(set_.closed), std::move(callback));
    }

protected:
    using Set = HandlerSet<First, Request, Closed, Writable>;

    explicit HandlerSetters(Set &&set) : set_(std::move(set)) {}

    template <typename Callback>
    auto WithFirst(Callback callback) {
        return Made(std::move(callback), std::move(set_.request), std::move(set_.closed), std::move(set_.writable));
    }

    Set set_;

private:
    template <typename... Callbacks>
    static Handlers<Callbacks...> Made(Callbacks... callbacks) {
        return Handlers<Callbacks...>({std::move(callbacks)...});
    }
};

// Owns the callables, at an address that stays. Threads: the loop's.
template <typename Set, bool ofService>
struct HandlerBlock final : Block {
    explicit HandlerBlock(Set &&set) : handlers(std::move(set)) {
        destroy = [](Block *block) noexcept { delete static_cast<HandlerBlock *>(block); };
    }

    static HandlerBlock &Of(void *context) noexcept { return *static_cast<HandlerBlock *>(context); }

    static void Opened(void *context, TarvoLink *link, int result) noexcept {
        HandlerBlock &block = Of(context);
        const Use use(block);
        block.handlers.first(LinkAccess::View(link, &block), LoopError(result));
    }

    static void Request(void *context, TarvoLink *link, uint32_t id, TarvoBytes payload) noexcept {
        HandlerBlock &block = Of(context);
        const Use use(block);
        const LinkRequest request(LinkAccess::View(link, &block), id, payload);
        if constexpr (std::is_void_v<decltype(block.handlers.request(request))>) {
            block.handlers.request(request);
        } else {
            const auto &reply = block.handlers.request(request);
            (void)request.Reply(reply);
        }
    }

    static void Closed(void *context, TarvoLink *link) noexcept {
        HandlerBlock &block = Of(context);
        const Use use(block);
        block.closing = ofService ? link : nullptr;
        if constexpr (IS_SET<decltype(block.handlers.closed)>) {
            block.handlers.closed(LinkAccess::View(link, &block));
        }
        if (ofService && block.closing == link) {
            block.closing = nullptr;
            --block.clients;
        }
    }

    static void Writable(void *context, TarvoLink *link) noexcept {
        HandlerBlock &block = Of(context);
        const Use use(block);
        block.handlers.writable(LinkAccess::View(link, &block));
    }

    static void Client(void *context, TarvoService *, TarvoLink *link, const char *name) noexcept {
        HandlerBlock &block = Of(context);
        const Use use(block);
        ++block.clients;
        if constexpr (IS_SET<decltype(block.handlers.first)>) {
            block.handlers.first(LinkAccess::View(link, &block), std::string_view(name));
        }
    }

    // Null where there is no callable: the loop then has nothing to call.
    static TarvoLinkCallbacks Table() noexcept {
        TarvoLinkCallbacks table{};
        table.size = sizeof(table);
        if constexpr (!ofService && IS_SET<decltype(Set::first)>) {
            table.opened = Opened;
        }
        if constexpr (IS_SET<decltype(Set::request)>) {
            table.request = Request;
        }
        if constexpr (ofService || IS_SET<decltype(Set::closed)>) {
            table.closed = Closed;
        }
        if constexpr (IS_SET<decltype(Set::writable)>) {
            table.writable = Writable;
        }
        return table;
    }

    Set handlers;
};

// Null, and not_enough_memory in `error`, where there is no memory for it.
template <typename Block, typename Set>
std::unique_ptr<Block> MakeBlock(Set &&set, std::error_code &error) noexcept {
    std::unique_ptr<Block> block(new (std::nothrow) Block(std::forward<Set>(set)));
    if (block == nullptr) {
        error = std::make_error_code(std::errc::not_enough_memory);
    }
    return block;
}

} // namespace tarvo::detail

#endif // TARVO_LINK_HANDLERS_HPP
