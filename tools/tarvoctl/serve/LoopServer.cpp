#include "serve/LoopServer.h"

#include <poll.h>

#include <algorithm>
#include <system_error>

#include "shared/Engine.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

constexpr std::chrono::seconds COUNT_TICK(1);
// What a client that does not read its answers may take of this process.
constexpr std::size_t MAX_UNSENT_BYTES = std::size_t{16} << 20U;

} // namespace

LoopServer::LoopServer(const ServeOptions &serveOptions)
    : options(serveOptions), events(serveOptions), loop(tarvo::Loop::Create()) {}

int LoopServer::Open(const std::string &name, gid_t group) {
    Served &served = servers.emplace_back();
    served.name = name;
    std::error_code error;
    served.service =
        tarvo::Service::Open(loop, name, tarvo::ServiceOptions().Group(group).Replace(options.replace),
                             tarvo::ServiceHandlers()
                                 .OnClient([this, &served](tarvo::LinkView link, std::string_view client) {
                                     OnClient(served, link, std::string(client));
                                 })
                                 .OnRequest([this](const tarvo::LinkRequest &request) { OnRequest(request); })
                                 .OnWritable([this](tarvo::LinkView link) { OnWritable(*clients.at(link)); })
                                 .OnClosed([this](tarvo::LinkView link) { OnClosed(link); }),
                             error);
    return -error.value();
}

void LoopServer::OnClient(Served &served, tarvo::LinkView link, const std::string &name) {
    ++served.counts.clients;
    clients[link] = std::make_shared<Client>(name, served, link);
    events.Connected(served.name, name);
}

void LoopServer::OnRequest(const tarvo::LinkRequest &request) {
    if (options.limit > 0 && taken == options.limit) {
        return;
    }
    ++taken;
    const ClientPtr client = clients.at(request.From());
    Work work = {request.Keep(), request.Text(), ""};
    events.Request(client->served.name, client->name, work.request, request.Id());
    if (options.count) {
        Count(*client, work);
    } else if (options.exec.empty()) {
        work.answer = work.request;
        Answer(*client, std::move(work));
    } else {
        client->waiting.push_back(std::move(work));
        StartCommand(client);
    }
}

void LoopServer::OnWritable(Client &client) {
    while (!client.unsent.empty()) {
        const std::error_code error = Send(client, client.unsent.front());
        if (error == std::errc::resource_unavailable_try_again) {
            return;
        }
        client.unsentBytes -= client.unsent.front().answer.size();
        Answered(client, client.unsent.front(), error);
        client.unsent.pop_front();
    }
}

void LoopServer::OnClosed(tarvo::LinkView link) {
    const auto found = clients.find(link);
    Client &client = *found->second;
    client.link = tarvo::LinkView();
    OnWritable(client); // nothing can be sent any more, which is told of each
    events.Closed(client.served.name, client.name);
    clients.erase(found);
}

void LoopServer::Answer(Client &client, Work work) {
    auto error = std::make_error_code(std::errc::resource_unavailable_try_again);
    if (client.unsent.empty()) {
        error = Send(client, work);
    }
    if (error != std::errc::resource_unavailable_try_again ||
        client.unsentBytes + work.answer.size() > MAX_UNSENT_BYTES) {
        Answered(client, work, error);
        return;
    }
    client.unsentBytes += work.answer.size();
    client.unsent.push_back(std::move(work));
}

std::error_code LoopServer::Send(const Client &client, const Work &work) {
    return client.link ? work.ticket.Reply(work.answer) : std::make_error_code(std::errc::broken_pipe);
}

void LoopServer::Answered(Client &client, const Work &work, std::error_code error) {
    if (error) {
        events.NoAnswer(client.name, error.value());
    } else {
        ++client.served.counts.answers;
    }
    Count(client, work);
}

void LoopServer::Count(Client &client, const Work &work) {
    client.served.counts.bytes += work.request.size();
    ++client.served.counts.requests;
    ++finished;
}

void LoopServer::StartCommand(const ClientPtr &client) {
    while (!client->run && !client->waiting.empty()) {
        const Work &work = client->waiting.front();
        try {
            client->run.emplace(
                CommandTask{options.exec, client->served.name, client->name, work.request, options.execTimeout.value});
            running.push_back(client);
        } catch (const std::system_error &error) {
            Diagnose("no answer for '{}': {}", client->name, error.what());
            Count(*client, work);
            client->waiting.pop_front();
        }
    }
}

void LoopServer::EndCommand(const ClientPtr &client) {
    std::optional<std::string> answer = client->run->Answer();
    client->run.reset();
    Work work = std::move(client->waiting.front());
    client->waiting.pop_front();
    if (answer) {
        work.answer = std::move(*answer);
        Answer(*client, std::move(work));
    } else {
        Count(*client, work);
    }
    StartCommand(client);
}

void LoopServer::AdvanceCommands(const std::vector<bool> &readable) {
    const std::vector<ClientPtr> looked = std::exchange(running, {});
    for (std::size_t i = 0; i < looked.size(); ++i) {
        if (looked[i]->run->Advance(readable[i])) {
            EndCommand(looked[i]);
        } else {
            running.push_back(looked[i]);
        }
    }
}

bool LoopServer::Await(const Interrupt &interrupt, Clock::time_point tick) {
    std::vector<pollfd> entries = {{interrupt.Fd(), POLLIN, 0}, {loop.Fd(), POLLIN, 0}};
    Clock::time_point end = tick;
    for (const ClientPtr &client : running) {
        entries.push_back({client->run->Fd(), POLLIN, 0});
        end = std::min(end, client->run->End());
    }
    int limit = -1;
    if (end != Clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        limit = static_cast<int>(std::max<long>(left, 0));
    }
    const bool ready = poll(entries.data(), entries.size(), limit) > 0;
    std::vector<bool> readable;
    for (std::size_t i = 2; i < entries.size(); ++i) {
        readable.push_back(ready && entries[i].revents != 0);
    }
    AdvanceCommands(readable);
    return !ready || entries[0].revents == 0;
}

void LoopServer::Run(const Interrupt &interrupt) {
    auto tick = options.count ? Clock::now() + COUNT_TICK : Clock::time_point::max();
    while (options.limit == 0 || finished < options.limit) {
        if (!Await(interrupt, tick)) {
            return;
        }
        loop.Dispatch(CALLBACKS_PER_ROUND);
        if (Clock::now() >= tick) {
            PrintCounts();
            tick = Clock::now() + COUNT_TICK;
        }
    }
}

void LoopServer::PrintCounts() {
    for (Served &served : servers) {
        if (served.counts.requests != served.printed) {
            served.printed = served.counts.requests;
            events.Counts(served.name, served.counts);
        }
    }
}

void LoopServer::Stop() {
    for (Served &served : servers) {
        served.service.Close();
    }
    running.clear();
    clients.clear();
    for (const Served &served : servers) {
        events.Ended(served.name, served.counts);
    }
}

} // namespace tarvoctl
