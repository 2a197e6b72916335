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
#include "serve/Responder.h"
#include "shared/ServerFile.h"
#include "tarvo.h"

namespace tarvoctl {

struct ServeOptions {
    std::string name;
    bool echo = false;
    bool count = false;
    std::string exec;
    Duration execTimeout{std::chrono::seconds(10)};
    std::string group;
    std::string priority = "normal";
    bool replace = false;
    bool print = false;
    uint64_t limit = 0; // requests; 0: no limit
    bool json = false;
};

struct ServiceCounts {
    uint64_t requests = 0;
    uint64_t answers = 0;
    uint64_t bytes = 0;
    uint64_t clients = 0;
};

// The server of this process.
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
    void Print(const std::string &client, const std::string &request, uint32_t id) const;
    void CountRequest(std::size_t size);

    const ServeOptions &options;
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
