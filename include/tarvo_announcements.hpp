// That a server's user hears of each client before the client's requests; an inner part of tarvo.hpp.
#ifndef TARVO_ANNOUNCEMENTS_HPP
#define TARVO_ANNOUNCEMENTS_HPP

#include "tarvo_basics.hpp"

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

namespace tarvo::detail {

// The pipes of the process's server, each announced once, by the thread that first comes across it: the server's, or
// the one that runs the pipe's callbacks, which waits when the other is at it. The server's waits for nobody. Owns: an
// entry for each pipe, dropped some time after the pipe has closed. Threads: any. Locks: mutex_, not held while the
// user's callback runs. Never destroyed.
class Announcements {
public:
    struct Client {
        std::string name;
        bool isKnown = false; // guarded by the mutex: the user's callback has returned
    };

    static Announcements &Get() {
        static auto *const announcements = new Announcements;
        return *announcements;
    }

    // On the server's thread, for each pipe that it has opened. That thread opens no other meanwhile, so that whatever
    // has closed before will never be announced again and can be dropped.
    template <typename Announce>
    void Opened(int handle, std::string_view name, Announce announce) {
        const auto [client, isFirst] = Find(handle, name);
        if (isFirst) {
            Run(handle, *client, announce);
        }
        DropClosed();
    }

    // In a callback of the pipe: returns once it has been announced. Valid until this thread asks for another pipe;
    // null when the pipe had been closed before anything of it was seen. Takes no lock but for the first time.
    template <typename Announce>
    const Client *Await(int handle, Announce announce) {
        // One thread runs the callbacks of a pipe, as a rule, and handles are never used again.
        thread_local int lastHandle = 0;
        thread_local std::shared_ptr<Client> last;
        if (lastHandle != handle) {
            const auto [client, isFirst] = Find(handle, RemoteName(handle));
            if (!client) {
                return nullptr;
            }
            if (isFirst) {
                Run(handle, *client, announce);
            } else {
                std::unique_lock<std::mutex> lock(mutex_);
                known_.wait(lock, [&known = client->isKnown] { return known; });
            }
            last = client;
            lastHandle = handle;
        }
        return last.get();
    }

private:
    using Entry = std::shared_ptr<Client>;

    // The entry of the pipe and whether it is new; none for a name that could not be told.
    std::pair<Entry, bool> Find(int handle, std::string_view name) {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto place = clients_.find(handle);
        if (place != clients_.end()) {
            return {place->second, false};
        }
        if (name.empty()) {
            return {nullptr, false};
        }
        const auto client = std::make_shared<Client>(Client{std::string(name)});
        clients_.emplace(handle, client);
        return {client, true};
    }

    template <typename Announce>
    void Run(int handle, Client &client, Announce announce) {
        announce(handle, client.name);
        const std::lock_guard<std::mutex> lock(mutex_);
        client.isKnown = true;
        known_.notify_all();
    }

    void DropClosed() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (clients_.size() < dropAt_) {
            return;
        }
        for (auto place = clients_.begin(); place != clients_.end();) {
            char name[MAX_NAME + 1];
            const bool isClosed = TarvoGetRemoteName(place->first, name, sizeof(name)) == -ENOENT;
            place = isClosed && place->second->isKnown ? clients_.erase(place) : std::next(place);
        }
        dropAt_ = std::max<std::size_t>(LEAST_TO_DROP, 2 * clients_.size());
    }

    static constexpr std::size_t LEAST_TO_DROP = 64;

    std::mutex mutex_;
    std::condition_variable known_;
    std::map<int, Entry> clients_;
    std::size_t dropAt_ = LEAST_TO_DROP;
};

} // namespace tarvo::detail

#endif // TARVO_ANNOUNCEMENTS_HPP
