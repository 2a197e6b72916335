#ifndef TARVO_TARVOCTL_LOOPSERVER_H
#define TARVO_TARVOCTL_LOOPSERVER_H

#include <sys/types.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "serve/CommandRun.h"
#include "serve/Events.h"
#include "shared/Interrupt.h"
#include "tarvo_loop.hpp"

namespace tarvoctl {

// The servers of this process, under any number of names, on one loop.
// Owns: the loop, the servers, their clients and the commands that answer them. Threads: the one that has made it.
// Locks: none. Ends: any time; commands that run are killed.
class LoopServer {
public:
    explicit LoopServer(const ServeOptions &serveOptions);

    // Serves one name more. 0 or a negated errno.
    int Open(const std::string &name, gid_t group);
    // Returns when the limit of requests is reached or an interrupt has come.
    void Run(const Interrupt &interrupt);
    // Ends all servers, and tells what has come.
    void Stop();

private:
    using Clock = CommandRun::Clock;

    struct Served {
        std::string name;
        tarvo::Service service;
        ServiceCounts counts;
        uint64_t printed = 0; // requests
    };
    struct Work {
        tarvo::LinkTicket ticket;
        std::string request;
        std::string answer;
    };
    struct Client {
        Client(std::string clientName, Served &clientServed, tarvo::LinkView clientLink)
            : name(std::move(clientName)), served(clientServed), link(clientLink) {}

        const std::string name;
        Served &served;
        tarvo::LinkView link;    // empty once it has closed
        std::deque<Work> unsent; // answers for which there is no room yet
        std::size_t unsentBytes = 0;
        std::deque<Work> waiting; // requests for the command; the first is that of the run
        std::optional<CommandRun> run;
    };
    using ClientPtr = std::shared_ptr<Client>;

    void OnClient(Served &served, tarvo::LinkView link, const std::string &name);
    void OnRequest(const tarvo::LinkRequest &request);
    void OnWritable(Client &client);
    void OnClosed(tarvo::LinkView link);

    // Sends the answer, or keeps it until there is room.
    void Answer(Client &client, Work work);
    static std::error_code Send(const Client &client, const Work &work);
    void Answered(Client &client, const Work &work, std::error_code error);
    void Count(Client &client, const Work &work);

    void StartCommand(const ClientPtr &client);
    void EndCommand(const ClientPtr &client);
    // `readable` says it of each of the commands that run.
    void AdvanceCommands(const std::vector<bool> &readable);

    // Sleeps until there is something to do; false when an interrupt has come.
    bool Await(const Interrupt &interrupt, Clock::time_point tick);
    void PrintCounts();

    const ServeOptions &options;
    const Events events;
    tarvo::Loop loop;
    std::deque<Served> servers; // each stays where it is
    std::unordered_map<tarvo::LinkView, ClientPtr> clients;
    std::vector<ClientPtr> running; // those with a command, also when they have closed
    uint64_t taken = 0;
    uint64_t finished = 0;
};

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_LOOPSERVER_H
