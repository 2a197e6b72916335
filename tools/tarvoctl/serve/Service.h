#ifndef TARVO_TARVOCTL_SERVICE_H
#define TARVO_TARVOCTL_SERVICE_H

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/UniqueFd.h"
#include "serve/Events.h"
#include "serve/Responder.h"
#include "shared/ServerFile.h"
#include "tarvo.h"

namespace tarvoctl {

// The server of this process, on the threads of the library.
// Owns: the responder, the names of its clients and an event for its limit. Threads: any; the library's run the
// callbacks. Locks: `mutex` guards the names. Ends: Stop first, so that no callback runs any more.
class Service {
public:
    Service(const ServeOptions &serveOptions, std::unique_ptr<Responder> serveResponder);
    ~Service();
    Service(const Service &) = delete;
    Service &operator=(const Service &) = delete;

    // 0 or a negated errno.
    int Start(gid_t group);
    // Ends the server, its pipes and all callbacks, and removes the server's file unless another server has replaced
    // it meanwhile.
    void Stop();

    // Readable once the limit of requests is reached.
    int LimitFd() const { return limitEvent.Get(); }
    ServiceCounts Counts() const;

    void OnConnect(int pipe, const std::string &client);
    // Null when the client has closed.
    void OnRequest(int pipe, const TarvoRequest *request);

private:
    std::string NameOf(int pipe);
    void OnClose(int pipe);
    void CountRequest(std::size_t size);

    const std::string &Name() const { return options.names.front(); }

    const ServeOptions &options;
    const Events events;
    std::unique_ptr<Responder> responder;
    UniqueFd limitEvent;
    ServerFile file;
    std::atomic<uint64_t> requests{0};
    std::atomic<uint64_t> answers{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> clients{0};
    std::mutex mutex;
    std::condition_variable named;
    std::map<int, std::string> names;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_SERVICE_H
