// What a run of tarvoctl serve is asked for and tells, whatever its engine.
#ifndef TARVO_TARVOCTL_EVENTS_H
#define TARVO_TARVOCTL_EVENTS_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "shared/Duration.h"

namespace tarvoctl {

struct ServeOptions {
    std::vector<std::string> names;
    std::string engine; // empty: the one that suits
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

// Tells the events of a run. Where several names are served, each event has the name of its server.
// Owns: nothing. Threads: any. Locks: none. Ends: any time.
class Events {
public:
    explicit Events(const ServeOptions &serveOptions) : options(serveOptions) {}

    void Serving(const std::string &name) const;
    void Connected(const std::string &name, const std::string &client) const;
    void Closed(const std::string &name, const std::string &client) const;
    // With --print only.
    void Request(const std::string &name, const std::string &client, const std::string &request, uint32_t id) const;
    void Counts(const std::string &name, const ServiceCounts &counts) const;
    void Ended(const std::string &name, const ServiceCounts &counts) const;
    void NoAnswer(const std::string &client, int error) const;

private:
    bool Several() const { return options.names.size() > 1; }
    void PutEvent(const std::string &name, const char *event, nlohmann::json object) const;
    void PutCounts(const std::string &name, const char *event, const ServiceCounts &counts) const;

    const ServeOptions &options;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_EVENTS_H
