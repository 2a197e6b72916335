// What the C++ handles of a loop are made of; an inner part of tarvo_loop.hpp.
#ifndef TARVO_LOOP_PARTS_HPP
#define TARVO_LOOP_PARTS_HPP

#include "tarvo_basics.hpp"
#include "tarvo_loop.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace tarvo {

// The time-out of what may take as long as it takes.
inline constexpr std::chrono::milliseconds NO_LIMIT = std::chrono::milliseconds::max();

namespace detail {

// Results of tarvo_loop.h are errno values throughout, -1 included.
inline std::error_code LoopError(int64_t result) noexcept {
    return result >= 0 ? std::error_code() : std::error_code(static_cast<int>(-result), std::generic_category());
}

constexpr int LoopTimeout(std::chrono::milliseconds time) noexcept {
    return time == NO_LIMIT ? -1 : Milliseconds(time, 0);
}

inline TarvoBytes BytesOf(Payload payload) noexcept { return {payload.Data(), payload.Size()}; }
inline std::string_view ViewOf(TarvoBytes bytes) noexcept {
    return bytes.data == nullptr ? std::string_view("") : std::string_view(bytes.data, bytes.size);
}

// Callables that a C callback's context holds itself: a lambda that captures `this`, for instance.
template <typename Function>
inline constexpr bool
    FITS_CONTEXT = sizeof(Function) <= sizeof(void *) &&
                   std::is_trivially_copyable_v<Function> &&std::is_trivially_destructible_v<Function>;

template <typename Function>
void *ToContext(const Function &function) noexcept {
    void *context = nullptr;
    std::memcpy(&context, static_cast<const void *>(&function), sizeof(function));
    return context;
}

template <typename Function, typename... Arguments>
void RunContext(void *context, Arguments... arguments) {
    alignas(Function) unsigned char bytes[sizeof(Function)];
    std::memcpy(bytes, &context, sizeof(bytes));
    (*std::launder(reinterpret_cast<Function *>(bytes)))(arguments...);
}

// An entry of a ring, which leaves it as it ends.
struct Chained {
    Chained() noexcept : before(this), after(this) {}
    Chained(const Chained &) = delete;
    Chained &operator=(const Chained &) = delete;
    ~Chained() { Leave(); }

    // To the end of the ring that `head` stands for.
    void Join(Chained &head) noexcept {
        before = head.before;
        after = &head;
        before->after = this;
        head.before = this;
    }
    void Leave() noexcept {
        before->after = after;
        after->before = before;
        before = after = this;
    }
    [[nodiscard]] bool Alone() const noexcept { return after == this; }

    // Takes the first entry out of the ring of which this is the head; null when there is none.
    Chained *TakeFirst() noexcept {
        Chained *const first = after;
        if (first == this) {
            return nullptr;
        }
        after = first->after;
        after->before = this;
        first->before = first->after = first;
        return first;
    }

    Chained *before;
    Chained *after;
};

class LoopState;

// The user's callables of one link, or of one service and the links of its clients. Owns them, by `destroy`. Threads:
// the loop's. Ends: once nobody can call them any more, and none of them runs.
struct Block : Chained {
    // While one of the callables runs.
    class Use {
    public:
        explicit Use(Block &used) noexcept : block(used) { ++block.running; }
        ~Use() {
            --block.running;
            block.EndIfUnused();
        }
        Use(const Use &) = delete;
        Use &operator=(const Use &) = delete;

    private:
        Block &block;
    };

    // The handle has gone.
    void Abandon() noexcept {
        abandoned = true;
        EndIfUnused();
    }
    void ClientGone() noexcept {
        --clients;
        EndIfUnused();
    }
    void EndIfUnused() noexcept {
        if (abandoned && running == 0 && (clients == 0 || loop == nullptr)) {
            destroy(this);
        }
    }

    LoopState *loop = nullptr; // null: destroyed
    void (*destroy)(Block *) noexcept = nullptr;
    TarvoLink *link = nullptr;
    TarvoService *service = nullptr;
    TarvoLink *closing = nullptr; // the client's link whose `closed` runs
    std::size_t clients = 0;      // whose links are open
    int running = 0;
    bool abandoned = false;
};

// A call whose callable does not fit a context. Kept for the next ones when it has ended. Owns: the callable. Threads:
// the loop's.
struct CallNode : Chained {
    static constexpr std::size_t ROOM = 64;
    template <typename Function>
    static constexpr bool HOLDS = sizeof(Function) <= ROOM &&std::alignment_of_v<Function> <= alignof(std::max_align_t);

    LoopState *loop = nullptr;
    void (*destroy)(CallNode &) noexcept = nullptr;
    CallNode *next = nullptr; // of those that are free
    alignas(std::max_align_t) unsigned char room[ROOM];
};

// A function that was posted and has not run. Owns: it. Threads: the one that posts, then the loop's.
struct PostNode : Chained {
    PostNode() noexcept = default;
    virtual ~PostNode() = default;
    virtual void Run() = 0;
};

// What a loop of tarvo_loop.h does not know of its users: their callables. Owns: what runs no more when the loop is
// destroyed, and the blocks that have no handle. Threads: the loop's; Post any. Locks: mutex_.
class LoopState {
public:
    explicit LoopState(TarvoLoop *loop) noexcept : loop_(loop) {}
    LoopState(const LoopState &) = delete;
    LoopState &operator=(const LoopState &) = delete;

    // The loop has been destroyed.
    ~LoopState() {
        while (auto *const node = static_cast<CallNode *>(calls_.TakeFirst())) {
            node->destroy(*node);
            delete node;
        }
        while (free_ != nullptr) {
            delete std::exchange(free_, free_->next);
        }
        while (auto *const node = static_cast<PostNode *>(posts_.TakeFirst())) {
            delete node;
        }
        while (auto *const block = static_cast<Block *>(blocks_.TakeFirst())) {
            block->loop = nullptr;
            block->link = nullptr;
            block->service = nullptr;
            block->EndIfUnused();
        }
    }

    [[nodiscard]] TarvoLoop *Get() const noexcept { return loop_; }

    void Add(Block &block) noexcept {
        block.loop = this;
        block.Join(blocks_);
    }

    // A node that holds `function`; null when there is no memory.
    template <typename Stored, typename Function>
    CallNode *Keep(Function &&function) {
        static_assert(CallNode::HOLDS<Stored>);
        CallNode *const node = free_ != nullptr ? std::exchange(free_, free_->next) : new (std::nothrow) CallNode;
        if (node == nullptr) {
            return nullptr;
        }
        new (node->room) Stored(std::forward<Function>(function));
        node->loop = this;
        node->destroy = [](CallNode &kept) noexcept { In<Stored>(kept).~Stored(); };
        node->Join(calls_);
        return node;
    }
    template <typename Stored>
    static Stored &In(CallNode &node) noexcept {
        return *std::launder(reinterpret_cast<Stored *>(node.room));
    }
    void Drop(CallNode &node) noexcept {
        node.destroy(node);
        node.Leave();
        node.next = free_;
        free_ = &node;
    }

    template <typename Function>
    int Post(Function &&function) {
        using Stored = std::decay_t<Function>;
        if constexpr (FITS_CONTEXT<Stored>) {
            return TarvoLoopPost(
                loop_, [](void *context) noexcept { RunContext<Stored>(context); }, ToContext<Stored>(function));
        } else {
            struct Node final : PostNode {
                explicit Node(Function &&posted) : kept(std::forward<Function>(posted)) {}
                void Run() override { kept(); }
                Stored kept;
            };
            std::unique_ptr<Node> node(new (std::nothrow) Node(std::forward<Function>(function)));
            if (node == nullptr) {
                return -ENOMEM;
            }
            // The order of the nodes is that of the posts.
            const std::lock_guard<std::mutex> lock(mutex_);
            const int result = TarvoLoopPost(loop_, RunFirst, this);
            if (result == 0) {
                node.release()->Join(posts_);
            }
            return result;
        }
    }

private:
    static void RunFirst(void *context) noexcept { static_cast<LoopState *>(context)->TakeFirst()->Run(); }

    std::unique_ptr<PostNode> TakeFirst() {
        const std::lock_guard<std::mutex> lock(mutex_);
        std::unique_ptr<PostNode> first(static_cast<PostNode *>(posts_.after));
        first->Leave();
        return first;
    }

    TarvoLoop *const loop_;
    Chained blocks_;
    Chained calls_; // outstanding
    CallNode *free_ = nullptr;
    std::mutex mutex_;
    Chained posts_; // guarded by the mutex
};

} // namespace detail
} // namespace tarvo

#endif // TARVO_LOOP_PARTS_HPP
