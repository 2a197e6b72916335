#include "serve/Events.h"

#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "shared/Output.h"
#include "shared/Payload.h"

namespace tarvoctl {

void Events::PutEvent(const std::string &name, const char *event, nlohmann::json object) const {
    object["event"] = event;
    if (Several()) {
        object["name"] = name;
    }
    PutJson(object);
    FlushAnswer();
}

void Events::Serving(const std::string &name) const {
    if (options.json) {
        PutEvent(name, "serving", {{"name", name}, {"pid", getpid()}});
    } else {
        Diagnose("serving as '{}'; Ctrl-C ends it", name);
    }
}

void Events::Connected(const std::string &name, const std::string &client) const {
    if (options.json) {
        PutEvent(name, "connected", {{"client", client}});
    } else if (Several()) {
        Diagnose("{} connected to '{}'", client, name);
    } else {
        Diagnose("{} connected", client);
    }
}

void Events::Closed(const std::string &name, const std::string &client) const {
    if (options.json) {
        PutEvent(name, "closed", {{"client", client}});
    } else {
        Diagnose("{} closed", client);
    }
}

void Events::Request(const std::string &name, const std::string &client, const std::string &request,
                     uint32_t id) const {
    if (!options.print) {
        return;
    }
    if (options.json) {
        nlohmann::json object = {{"client", client}, {"id", id}};
        AddPayloadFields(object, request);
        PutEvent(name, "request", std::move(object));
        return;
    }
    Put(request.empty() || request.back() != '\n' ? request + "\n" : request);
    FlushAnswer();
}

void Events::Counts(const std::string &name, const ServiceCounts &counts) const { PutCounts(name, "counts", counts); }

void Events::Ended(const std::string &name, const ServiceCounts &counts) const { PutCounts(name, "ended", counts); }

void Events::PutCounts(const std::string &name, const char *event, const ServiceCounts &counts) const {
    if (options.json) {
        PutEvent(name, event,
                 {{"requests", counts.requests},
                  {"answers", counts.answers},
                  {"bytes", counts.bytes},
                  {"clients", counts.clients}});
        return;
    }
    if (options.count) {
        Put(fmt::format("{}{} requests, {} bytes, {} clients\n", Several() ? name + ": " : "", counts.requests,
                        counts.bytes, counts.clients));
    }
    FlushAnswer();
}

void Events::NoAnswer(const std::string &client, int error) const {
    Diagnose("no answer for '{}': {}", client, std::strerror(error));
}

} // namespace tarvoctl
