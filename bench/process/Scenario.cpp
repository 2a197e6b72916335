#include "Scenario.h"

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "Child.h"

namespace bench {

namespace {

constexpr std::size_t LEAST_COUNT = 20;

ClientTask Task(const char *kind, std::size_t size, std::size_t count, std::size_t lanes = 1, std::size_t pipes = 1) {
    ClientTask task;
    task.kind = kind;
    task.size = size;
    task.count = count;
    task.lanes = lanes;
    task.pipes = pipes;
    return task;
}

std::vector<std::string> Arguments(const char *role, const Contestant &contestant, const std::string &endpoint) {
    return {"--role", role, "--contestant", contestant.name, "--endpoint", endpoint};
}

std::unique_ptr<Child> StartClient(const Contestant &contestant, const ClientTask &task, const std::string &endpoint,
                                   std::size_t index, const std::vector<std::string> &servers, bool oneCore) {
    std::vector<std::string> arguments = Arguments("client", contestant, endpoint);
    const std::vector<std::string> rest = {"--self",  endpoint + "_" + std::to_string(index),
                                           "--kind",  task.kind,
                                           "--size",  std::to_string(task.size),
                                           "--count", std::to_string(task.count),
                                           "--lanes", std::to_string(task.lanes),
                                           "--pipes", std::to_string(task.pipes)};
    arguments.insert(arguments.end(), rest.begin(), rest.end());
    for (const std::string &server : servers) {
        arguments.insert(arguments.end(), {"--server", server});
    }
    return std::make_unique<Child>(arguments, oneCore);
}

// What follows "ready" in a server's line.
std::vector<std::string> ProcessesOf(const std::string &line) {
    std::istringstream stream(line);
    std::string word;
    stream >> word;
    std::vector<std::string> processes;
    while (stream >> word) {
        processes.push_back(word);
    }
    return processes;
}

std::map<std::string, double> ParseWords(const std::string &line) {
    std::map<std::string, double> words;
    std::istringstream stream(line);
    std::string word;
    while (stream >> word) {
        const std::size_t equals = word.find('=');
        if (equals != std::string::npos) {
            words[word.substr(0, equals)] = std::stod(word.substr(equals + 1));
        }
    }
    return words;
}

Figures Evaluate(const std::vector<std::map<std::string, double>> &results) {
    double operations = 0;
    double begin = results.front().at("begin");
    double end = results.front().at("end");
    for (const auto &result : results) {
        operations += result.at("operations");
        begin = std::min(begin, result.at("begin"));
        end = std::max(end, result.at("end"));
    }
    Figures figures;
    figures["rate"] = operations / ((end - begin) / 1e9);
    if (results.size() > 1) {
        return figures;
    }
    const auto &only = results.front();
    for (const char *name : {"p50", "p99", "p999"}) {
        if (only.at(name) > 0) {
            figures[name] = only.at(name) / 1e3;
        }
    }
    figures["cpu"] = only.at("cpu") / operations / 1e3;
    return figures;
}

// The socket of a server that was ended the hard way, which would otherwise stay behind.
class SocketFile {
public:
    explicit SocketFile(const std::string &endpoint) : path("/dev/shm/" + endpoint + ".sock") {}
    ~SocketFile() { unlink(path.c_str()); }
    SocketFile(const SocketFile &) = delete;
    SocketFile &operator=(const SocketFile &) = delete;

private:
    const std::string path;
};

} // namespace

const std::vector<Scenario> &Scenarios() {
    static const std::vector<Scenario> scenarios = {
        {"call64", "call of 64 bytes", Task("call", 64, 20000)},
        {"call1000", "call of 1000 bytes", Task("call", 1000, 20000)},
        {"call4000", "call of 4000 bytes", Task("call", 4000, 20000)},
        {"callers8", "8 callers on one pipe, 64 bytes", Task("call", 64, 4000, 8)},
        {"clients16", "16 client processes, 64 bytes", Task("call", 64, 2000), 16},
        {"oneway64", "one-way messages of 64 bytes", Task("oneway", 64, 100000)},
        {"oneway4000", "one-way messages of 4000 bytes", Task("oneway", 4000, 50000)},
        {"connect", "connect and first call", Task("connect", 64, 50)},
        {"pipes1", "call of 64 bytes, 1 pipe open", Task("call", 64, 20000), 1, false, true, true},
        {"pipes10", "call of 64 bytes, 10 pipes open", Task("call", 64, 20000, 1, 10), 1, false, true, true},
        {"pipes100", "call of 64 bytes, 100 pipes open", Task("call", 64, 20000, 1, 100), 1, false, true, true},
        {"pipes1000", "call of 64 bytes, 1000 pipes open", Task("call", 64, 20000, 1, 1000), 1, false, true, true},
        {"busy64", "call of 64 bytes, two busy foreign processes", Task("call", 64, 10000), 1, true},
        {"pipes1000busy", "call of 64 bytes, 1000 pipes open, two busy foreign processes",
         Task("call", 64, 10000, 1, 1000), 1, true, true},
    };
    return scenarios;
}

bool Supports(const Contestant &contestant, const Scenario &scenario) {
    const std::string name = contestant.name;
    if (scenario.ownTopologyOnly && name != "tarvo" && name != "floor") {
        return false;
    }
    if (name == "fifo" && (scenario.clients > 1 || scenario.task.kind == "connect")) {
        return false;
    }
    return (scenario.task.lanes == 1 || contestant.manyLanes) && (scenario.task.kind != "oneway" || contestant.oneWay);
}

Figures Measure(const Contestant &contestant, const Scenario &scenario, bool oneCore, std::size_t divisor) {
    static unsigned runs = 0;
    const std::string endpoint = "tvb" + std::to_string(getpid()) + "_" + std::to_string(++runs);
    ClientTask task = scenario.task;
    task.count = std::max(task.count / divisor, LEAST_COUNT);
    if (divisor > 1) {
        task.pipes = std::min<std::size_t>(task.pipes, 100);
    }
    const SocketFile removed(endpoint);
    Child server(Arguments("server", contestant, endpoint), oneCore);
    const std::vector<std::string> servers = ProcessesOf(server.ReadLine());
    std::vector<std::unique_ptr<Child>> clients;
    for (std::size_t i = 0; i < scenario.clients; ++i) {
        clients.push_back(StartClient(contestant, task, endpoint, i, servers, oneCore));
    }
    for (const auto &client : clients) {
        client->ReadLine();
    }
    std::vector<std::unique_ptr<BusyProcess>> load;
    for (int i = 0; scenario.foreignLoad && i < 2; ++i) {
        load.push_back(std::make_unique<BusyProcess>());
    }
    for (const auto &client : clients) {
        client->WriteLine();
    }
    std::vector<std::map<std::string, double>> results;
    for (const auto &client : clients) {
        results.push_back(ParseWords(client->ReadLine()));
    }
    Figures figures = Evaluate(results);
    if (clients.size() == 1 && task.lanes == 1) {
        clients.front()->WriteLine();
        const std::map<std::string, double> counted = ParseWords(clients.front()->ReadLine());
        if (counted.at("syscalls") >= 0) {
            figures["syscalls"] = counted.at("syscalls") / counted.at("operations");
        }
    }
    return figures;
}

} // namespace bench
