// Serving on a loop; part of tarvo_loop.hpp.
#ifndef TARVO_SERVICE_HPP
#define TARVO_SERVICE_HPP

#include "tarvo_event_loop.hpp"
#include "tarvo_link_handlers.hpp"

namespace tarvo {

// What a service and the links of its clients call; otherwise as LinkHandlers. They live until the service and the last
// of those links is closed.
template <typename Client = detail::NoHandler, typename Request = detail::NoHandler,
          typename Closed = detail::NoHandler, typename Writable = detail::NoHandler>
class ServiceHandlers : public detail::HandlerSetters<ServiceHandlers, Client, Request, Closed, Writable> {
    using Setters = detail::HandlerSetters<ServiceHandlers, Client, Request, Closed, Writable>;

public:
    ServiceHandlers() : Setters({}) {}

    // `callback(LinkView, std::string_view name)`: a client's link is open. No request of it comes before. The name is
    // valid until the link is closed.
    template <typename Callback>
    auto OnClient(Callback callback) && {
        static_assert(std::is_invocable_v<Callback &, LinkView, std::string_view>,
                      "tarvo: OnClient takes a callable for (tarvo::LinkView, std::string_view)");
        return this->WithFirst(std::move(callback));
    }

private:
    template <template <typename, typename, typename, typename> class, typename, typename, typename, typename>
    friend class detail::HandlerSetters;
    friend class Service;
    using typename Setters::Set;

    explicit ServiceHandlers(Set &&set) : Setters(std::move(set)) {}
};

// How to serve. Setters return the object. Threads: one at a time.
class ServiceOptions {
public:
    // The group that owns the files.
    ServiceOptions &Group(uint32_t gid) noexcept {
        gid_ = gid;
        return *this;
    }
    // Takes the name away from a server that lives.
    ServiceOptions &Replace(bool replace = true) noexcept {
        replace_ = replace;
        return *this;
    }

private:
    friend class Service;
    uint32_t gid_ = TARVO_LOOP_ANY_GROUP;
    bool replace_ = false;
};

// Serves a name until it is closed with this object; the links of its clients stay open, and belong to the loop. Can be
// moved. Threads: the loop's, as with Link.
class [[nodiscard]] Service {
public:
    Service() noexcept = default;
    Service(Service &&other) noexcept : owned_(std::exchange(other.owned_, nullptr)) {}
    Service &operator=(Service &&other) noexcept {
        Service taken(std::move(other));
        std::swap(owned_, taken.owned_);
        return *this;
    }
    ~Service() { Close(); }

    // TarvoServiceOpen. On an error the object is empty. address_in_use: a living server has the name.
    template <typename... Handlers>
    static Service Open(Loop &loop, const std::string &name, ServiceOptions options,
                        ServiceHandlers<Handlers...> handlers) {
        std::error_code error;
        Service service = Open(loop, name, options, std::move(handlers), error);
        detail::ThrowIf(error, {"tarvo service ", name});
        return service;
    }
    template <typename... Handlers>
    static Service Open(Loop &loop, const std::string &name, ServiceOptions options,
                        ServiceHandlers<Handlers...> handlers, std::error_code &error) noexcept {
        using Block = detail::HandlerBlock<typename ServiceHandlers<Handlers...>::Set, true>;
        Service service;
        if (!loop || detail::HoldsZero(name)) {
            error = std::make_error_code(std::errc::invalid_argument);
            return service;
        }
        std::unique_ptr<Block> block = detail::MakeBlock<Block>(std::move(handlers.set_), error);
        if (block == nullptr) {
            return service;
        }
        const TarvoLinkCallbacks callbacks = Block::Table();
        TarvoServiceOptions raw{};
        raw.size = sizeof(raw);
        raw.name = name.c_str();
        raw.gid = options.gid_;
        raw.replace = options.replace_ ? 1 : 0;
        raw.context = block.get();
        raw.client = Block::Client;
        raw.callbacks = &callbacks;
        error = detail::LoopError(TarvoServiceOpen(loop.Handle(), &raw, &block->service));
        if (!error) {
            loop.state_->Add(*block);
            service.owned_ = block.release();
        }
        return service;
    }

    // The handle of tarvo_loop.h; null for none.
    [[nodiscard]] TarvoService *Handle() const noexcept { return owned_ == nullptr ? nullptr : owned_->service; }
    explicit operator bool() const noexcept { return Handle() != nullptr; }

    // TarvoServiceClose. No error when there is nothing to close.
    std::error_code Close() noexcept {
        if (owned_ == nullptr) {
            return {};
        }
        const std::error_code error = detail::LoopError(TarvoServiceClose(owned_->service));
        detail::Block *const block = std::exchange(owned_, nullptr);
        if (!error) {
            block->service = nullptr;
            block->Abandon();
        }
        return error;
    }

private:
    detail::Block *owned_ = nullptr;
};

} // namespace tarvo

#endif // TARVO_SERVICE_HPP
