#include "serve/Service.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "shared/Output.h"

namespace tarvoctl {
namespace {

// The callbacks of the library carry no pointer of ours. Set before the server starts.
Service *current = nullptr;

void OpenCallback(int pipe, const char *name, uint32_t length) { current->OnConnect(pipe, std::string(name, length)); }

void RequestCallback(int pipe, TarvoRequest *request) { current->OnRequest(pipe, request); }

} // namespace

Service::Service(const ServeOptions &serveOptions, std::unique_ptr<Responder> serveResponder)
    : options(serveOptions), events(serveOptions), responder(std::move(serveResponder)),
      limitEvent(eventfd(0, EFD_CLOEXEC)) {
    current = this;
}

Service::~Service() { Stop(); }

int Service::Start(gid_t group) {
    TarvoServerAttr attr;
    attr.openCallback = OpenCallback;
    attr.callback = RequestCallback;
    attr.gid = group;
    attr.priority = options.priority == "urgent" ? TARVO_PRIORITY_URGENT : TARVO_PRIORITY_NORMAL;
    attr.selfName = Name().c_str();
    const int result = TarvoCreateServer(&attr);
    if (result == 0 && !file.Note(Name())) {
        Diagnose("the file of the server was removed at once");
    }
    return result;
}

void Service::Stop() {
    // Gone before the server ends: who comes now is told at once that there is none.
    file.Remove();
    TarvoCfgFinishServer();
}

ServiceCounts Service::Counts() const { return {requests, answers, bytes, clients}; }

void Service::OnConnect(int pipe, const std::string &client) {
    ++clients;
    // Told before its requests, which wait for the name.
    events.Connected(Name(), client);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        names[pipe] = client;
    }
    named.notify_all();
}

std::string Service::NameOf(int pipe) {
    // A request may be quicker than the call of OnConnect, which always follows an open.
    std::unique_lock<std::mutex> lock(mutex);
    const auto end = std::chrono::system_clock::now() + std::chrono::seconds(5);
    named.wait_until(lock, end, [&] { return names.count(pipe) != 0; });
    const auto found = names.find(pipe);
    return found == names.end() ? "pipe " + std::to_string(pipe) : found->second;
}

void Service::OnClose(int pipe) {
    const std::string client = NameOf(pipe);
    {
        const std::lock_guard<std::mutex> lock(mutex);
        names.erase(pipe);
    }
    events.Closed(Name(), client);
}

void Service::OnRequest(int pipe, const TarvoRequest *request) {
    if (request == nullptr) {
        OnClose(pipe);
        return;
    }
    const std::string client = NameOf(pipe);
    const std::string data(request->data, request->size);
    events.Request(Name(), client, data, request->id);
    std::optional<std::string> answer = responder->Answer(client, data);
    if (answer) {
        TarvoResponse response = {request->id, answer->data(), static_cast<uint32_t>(answer->size())};
        const int result = TarvoSendResponse(pipe, &response);
        if (result == 0) {
            ++answers;
        } else {
            events.NoAnswer(client, -result);
        }
    }
    CountRequest(data.size());
}

void Service::CountRequest(std::size_t size) {
    bytes += size;
    if (++requests == options.limit) {
        const uint64_t one = 1;
        if (write(limitEvent.Get(), &one, sizeof(one)) < 0) {
            std::abort(); // a counter of zero always takes one more
        }
    }
}

} // namespace tarvoctl
