// Which Pipe objects own which pipes, and what runs for them; an inner part of tarvo.hpp.
#ifndef TARVO_OWNERS_HPP
#define TARVO_OWNERS_HPP

#include "tarvo_request.hpp"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <tuple>

namespace tarvo::detail {

// What the library calls for one pipe: the library copies its callback for each request, and all copies share this.
// Threads: as many as the library runs callbacks of the pipe on.
class Dispatcher {
public:
    Dispatcher(std::string remote, Callbacks callbacks)
        : remote_(std::move(remote)), callbacks_(std::move(callbacks)) {}

    void operator()(int handle, const TarvoRequest *raw) {
        if (!used_.load(std::memory_order_relaxed)) {
            used_.store(true, std::memory_order_relaxed);
        }
        if (raw != nullptr) {
            if (callbacks_.request) {
                const Request request(handle, *raw, remote_);
                callbacks_.request(request);
            }
        } else if (callbacks_.closed) {
            callbacks_.closed(PipeView(handle));
        }
    }

    // Whether the library has run it.
    bool Used() const noexcept { return used_.load(std::memory_order_relaxed); }
    // For a pipe that has never been open.
    void Replace(Callbacks callbacks) { callbacks_ = std::move(callbacks); }

private:
    const std::string remote_;
    Callbacks callbacks_;
    std::atomic<bool> used_{false};
};

// The pipes of this process that Pipe objects own, so that two of them never share one without a word: the second
// one's callbacks would be ignored, and the end of either would close the other's pipe. Never destroyed.
// Threads: any. Locks: mutex_, which is not held while the library is called.
class Owners {
public:
    static Owners &Get() {
        static auto *const owners = new Owners;
        return *owners;
    }

    // A handle that belongs to nobody else from now on, or a negated errno. `key` stands for the two names.
    int Open(int (*open)(TarvoAttr *), TarvoAttr &attr, std::optional<Callbacks> callbacks, const std::string &key) {
        if (!IsAlive()) {
            return -ENOENT; // what would be opened now is never heard
        }
        const Opening opening(*this, key);
        // Without a word to the server, which would take the announcement for a new client.
        if (!opening.IsOnlyOne() || IsOpen(OwnedBy(key))) {
            return -EEXIST;
        }
        Attempt attempt = Begin(key, attr.targetName, std::move(callbacks));
        if (!attempt.isPossible) {
            return -EEXIST;
        }
        if (attempt.dispatcher) {
            attr.callback = [dispatcher = attempt.dispatcher](int handle, TarvoRequest *raw) {
                (*dispatcher)(handle, raw);
            };
        }
        const int handle = open(&attr);
        attr.callback = nullptr; // what remains is the library's, and this attempt's
        return handle < 0 ? Failed(handle, key, std::move(attempt.dispatcher))
                          : Opened(handle, key, attempt.dispatcher);
    }

    void Add(int handle) noexcept {
        try {
            const std::lock_guard<std::mutex> lock(mutex_);
            owned_.emplace(handle, "");
        } catch (...) { // then a second owner goes unnoticed
        }
    }

    void Close(int handle) noexcept {
        // In a forked child the library is gone, and the mutex perhaps in the hands of a thread of the parent.
        if (TarvoClosePipe(handle) == 0) {
            Remove(handle);
        }
    }

    // After the handle was closed, or to give it away. Handles are never used again.
    void Remove(int handle) noexcept {
        const std::lock_guard<std::mutex> lock(mutex_);
        owned_.erase(handle);
    }

private:
    using ByKey = std::map<std::string, std::shared_ptr<Dispatcher>>;

    // Keeps other opens of the same pipe out.
    class Opening {
    public:
        Opening(Owners &owners, const std::string &key) : owners_(owners) {
            const std::lock_guard<std::mutex> lock(owners_.mutex_);
            std::tie(place_, isOnlyOne_) = owners_.opening_.insert(key);
        }
        ~Opening() {
            const std::lock_guard<std::mutex> lock(owners_.mutex_);
            if (isOnlyOne_) {
                owners_.opening_.erase(place_);
            }
        }
        Opening(const Opening &) = delete;
        Opening &operator=(const Opening &) = delete;
        bool IsOnlyOne() const { return isOnlyOne_; }

    private:
        Owners &owners_;
        std::set<std::string>::iterator place_;
        bool isOnlyOne_ = false;
    };

    // The pipe of those names that a Pipe owns; 0 for none.
    int OwnedBy(const std::string &key) {
        const std::lock_guard<std::mutex> lock(mutex_);
        // The last one: others have been closed by the library.
        const auto owned =
            std::find_if(owned_.rbegin(), owned_.rend(), [&](const auto &one) { return one.second == key; });
        return owned == owned_.rend() ? 0 : owned->first;
    }

    static bool IsOpen(int handle) {
        char name[MAX_NAME + 1];
        return TarvoGetRemoteName(handle, name, sizeof(name)) == 0;
    }

    struct Attempt {
        std::shared_ptr<Dispatcher> dispatcher; // null: no callbacks
        bool isPossible = true;
    };

    // The library keeps a pipe whose open has failed, with the callback of that first attempt. Later attempts use that
    // one's dispatcher, so that their callbacks are not ignored; where it had none, none can be had.
    Attempt Begin(const std::string &key, const char *remote, std::optional<Callbacks> callbacks) {
        std::shared_ptr<Dispatcher> before;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            const auto failed = failed_.find(key);
            if (failed != failed_.end() && !failed->second && callbacks) {
                return {nullptr, false};
            }
            if (failed != failed_.end()) {
                before = std::move(failed->second);
                failed_.erase(failed);
            }
        }
        if (before && !before->Used()) {
            // What is replaced is the user's, and must not be destroyed under a lock.
            before->Replace(callbacks ? std::move(*callbacks) : Callbacks());
            return {before};
        }
        return {callbacks ? std::make_shared<Dispatcher>(remote, std::move(*callbacks)) : nullptr};
    }

    int Failed(int result, const std::string &key, std::shared_ptr<Dispatcher> dispatcher) {
        const std::lock_guard<std::mutex> lock(mutex_);
        failed_.emplace(key, std::move(dispatcher));
        return result;
    }

    int Opened(int handle, const std::string &key, const std::shared_ptr<Dispatcher> &dispatcher) {
        // The pipe was there before, with a callback of somebody else's: opened by the functions of tarvo.h, or
        // released by its Pipe.
        if (dispatcher && dispatcher.use_count() == 1 && !dispatcher->Used()) {
            return -EEXIST;
        }
        try {
            const std::lock_guard<std::mutex> lock(mutex_);
            return owned_.emplace(handle, key).second ? handle : -EEXIST;
        } catch (const std::bad_alloc &) {
            TarvoClosePipe(handle);
            throw;
        }
    }

    std::mutex mutex_;
    std::map<int, std::string> owned_; // with their keys, where these are known
    std::set<std::string> opening_;
    ByKey failed_; // null: the attempt had no callbacks
};

} // namespace tarvo::detail

#endif // TARVO_OWNERS_HPP
