// Calls of the loop in masses: some are cancelled, and the time-outs of others are the median time that an answer
// takes, so that each answer and its time-out meet as often as not. Each call must end once, the answer must be its
// own, and the process must not grow. The service runs in a process of its own, which may be killed again and again.
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "storm/Board.h"
#include "storm/Percentile.h"
#include "storm/Proof.h"
#include "support/LeakCheck.h"
#include "support/Names.h"
#include "support/Process.h"
#include "support/Sanitized.h"
#include "tarvo_loop.h"

namespace storm {
namespace {

using tarvo_test::Channel;
using tarvo_test::ChildProcess;

constexpr int OPEN_TIMEOUT_MS = 1000;
constexpr int LONG_TIMEOUT_MS = 60000;
constexpr unsigned OUTSTANDING = 256;
constexpr std::size_t SAMPLES = 1000;
// What an allocator may keep more of than before.
constexpr std::size_t GROWTH_LIMIT = 100000;

struct Options {
    uint64_t calls = 1000000;
    unsigned kills = 0;
    double minutes = 0; // at least so long
    uint64_t seed = 0;
};

// ---- The service: answers in turn at once and after a while, as a pipe with work behind it ----

struct Late {
    TarvoLink *link;
    uint32_t request;
    uint64_t text;
};

struct Service {
    std::vector<Late> late; // of the one client
    unsigned count = 0;
};

void OnRequest(void *context, TarvoLink *link, uint32_t request, TarvoBytes payload) {
    auto &service = *static_cast<Service *>(context);
    Late one{link, request, 0};
    std::memcpy(&one.text, payload.data, sizeof(one.text));
    service.late.push_back(one);
    // A batch at a time, in the other order.
    if (++service.count % 8 != 0) {
        return;
    }
    while (!service.late.empty()) {
        const Late &last = service.late.back();
        // A client that is slow to read has its answers dropped, and its calls time out.
        TarvoLinkReply(last.link, last.request, {reinterpret_cast<const char *>(&last.text), sizeof(last.text)});
        service.late.pop_back();
    }
}

int Serve(Channel &channel, const std::string &name) {
    std::signal(SIGPIPE, SIG_IGN);
    TarvoLoop *loop = nullptr;
    TarvoService *service = nullptr;
    Service state;
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.request = OnRequest;
    callbacks.closed = [](void *context, TarvoLink *) { static_cast<Service *>(context)->late.clear(); };
    TarvoServiceOptions options = {};
    options.size = sizeof(options);
    options.name = name.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.context = &state;
    options.callbacks = &callbacks;
    if (TarvoLoopCreate(&loop) != 0 || TarvoServiceOpen(loop, &options, &service) != 0 || !channel.Signal()) {
        return 1;
    }
    // The client kills it.
    TarvoLoopRun(loop, -1);
    return 0;
}

// ---- The client ----

struct Call {
    class Client *client;
    uint64_t text;
    int64_t number;
    int64_t begun;
    bool open;
    bool cancelled;
};

// Owns: its loop. Threads: one. Ends: any time.
class Client {
public:
    Client(const Options &wanted, std::string serviceName)
        : options(wanted), name(std::move(serviceName)), random(wanted.seed), calls(OUTSTANDING) {
        if (TarvoLoopCreate(&loop) != 0) {
            Fail("no loop can be created");
        }
    }
    ~Client() { TarvoLoopDestroy(loop); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Connects; the calls of an earlier link have ended.
    bool Connect() {
        TarvoLinkClose(link);
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *, int result) { Of(context).opened = result; };
        callbacks.closed = [](void *context, TarvoLink *) {
            Client &client = Of(context);
            client.closed = true;
            if (client.outstanding != 0) {
                client.Fail("the end of a link comes before those of its calls");
            }
        };
        TarvoLinkOptions linkOptions = {};
        linkOptions.size = sizeof(linkOptions);
        linkOptions.target = name.c_str();
        linkOptions.self = name.c_str();
        linkOptions.gid = TARVO_LOOP_ANY_GROUP;
        linkOptions.timeoutMs = OPEN_TIMEOUT_MS;
        linkOptions.context = this;
        linkOptions.callbacks = &callbacks;
        link = nullptr;
        opened = 1;
        closed = false;
        if (TarvoLinkOpen(loop, &linkOptions, &link) != 0) {
            return false;
        }
        while (opened == 1) {
            Dispatch(OPEN_TIMEOUT_MS);
        }
        return opened == 0;
    }

    bool Connected() const { return opened == 0 && !closed; }

    // Begins, cancels and dispatches once.
    void Turn() {
        for (Call &call : calls) {
            if (!call.open && !Begin(call)) {
                break;
            }
        }
        if (random() % 4 == 0) {
            Call &call = calls[random() % OUTSTANDING];
            if (call.open && TarvoLinkCancel(link, call.number) == 0) {
                call.cancelled = true;
            }
        }
        Dispatch(LONG_TIMEOUT_MS);
    }

    // The service answers a batch at a time: some of the last calls would wait for others that do not come.
    void EndAll() {
        for (Call &call : calls) {
            call.cancelled = call.cancelled || (call.open && TarvoLinkCancel(link, call.number) == 0);
        }
        while (outstanding != 0) {
            Dispatch(LONG_TIMEOUT_MS);
        }
    }

    uint64_t Begun() const { return begun; }

    bool Judge() const {
        fmt::print("\n{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n", "calls", begun,
                   "answered", ends[0], "timed out", ends[1], "cancelled", ends[2], "ended with their link", ends[3]);
        fmt::print("{:<40}{:>10.3f} ms\n{:<40}{:>10}\n", "median time of an answer",
                   static_cast<double>(medianUs) / 1000, "failures", failures);
        return failures == 0 && begun == ends[0] + ends[1] + ends[2] + ends[3] && ends[0] != 0 && ends[1] != 0 &&
               ends[2] != 0;
    }

private:
    static Client &Of(void *context) { return *static_cast<Client *>(context); }

    void Fail(const char *what) {
        if (failures++ < 10) {
            fmt::print("FAILED: {}\n", what);
        }
    }

    void Dispatch(int limitMs) {
        pollfd entry = {TarvoLoopFd(loop), POLLIN, 0};
        if (poll(&entry, 1, limitMs) == 0) {
            Fail("nothing happens any more");
            std::exit(1);
        }
        if (TarvoLoopDispatch(loop, 50) < 0) {
            Fail("a dispatch fails");
        }
    }

    bool Begin(Call &call) {
        call = {this, ++text, 0, Now(), true, false};
        // Time-outs are whole milliseconds; the median lies between two of them.
        const int timeoutMs =
            random() % 2 == 0 ? static_cast<int>((medianUs + random() % 1000) / 1000) : LONG_TIMEOUT_MS;
        const int64_t number = TarvoLinkCall(link, {reinterpret_cast<const char *>(&call.text), sizeof(call.text)},
                                             timeoutMs, Done, &call);
        if (number <= 0) {
            call.open = false;
            if (number != -EAGAIN && number != -EPIPE) {
                Fail("a call is refused without a reason");
            }
            return false;
        }
        call.number = number;
        ++begun;
        ++outstanding;
        return true;
    }

    static void Done(void *context, int result, TarvoBytes answer) {
        auto &call = *static_cast<Call *>(context);
        call.client->End(call, result, answer);
    }

    void End(Call &call, int result, TarvoBytes answer) {
        if (!call.open) {
            return Fail("a call ends twice");
        }
        call.open = false;
        --outstanding;
        switch (result) {
        case 0:
            ++ends[0];
            if (call.cancelled || answer.size != sizeof(call.text) ||
                std::memcmp(answer.data, &call.text, sizeof(call.text)) != 0) {
                Fail("an answer is another's, or comes after a cancel");
            }
            return Sample(static_cast<double>(Now() - call.begun) / 1000);
        case -ETIMEDOUT:
            ++ends[1];
            return;
        case -ECANCELED:
            ++ends[2];
            return call.cancelled ? void() : Fail("nobody has cancelled this call");
        case -EPIPE:
            ++ends[3];
            return;
        default:
            return Fail("a call ends in a way of its own");
        }
    }

    void Sample(double us) {
        samples.push_back(us);
        if (samples.size() == SAMPLES) {
            std::nth_element(samples.begin(), samples.begin() + SAMPLES / 2, samples.end());
            medianUs = static_cast<uint64_t>(samples[SAMPLES / 2]);
            samples.clear();
        }
    }

    const Options options;
    const std::string name;
    std::mt19937_64 random;
    TarvoLoop *loop = nullptr;
    TarvoLink *link = nullptr;
    int opened = 1;
    bool closed = false;
    std::vector<Call> calls;
    std::vector<double> samples;
    uint64_t medianUs = 1000;
    uint64_t text = 0;
    uint64_t begun = 0;
    unsigned outstanding = 0;
    uint64_t ends[4] = {};
    unsigned failures = 0;
};

std::size_t UsedMemory() { return tarvo_test::SANITIZED ? 0 : mallinfo2().uordblks; }

// The service's process, forked from one without a loop: it asks a forker for the next one.
class Services {
public:
    explicit Services(std::string serviceName)
        : name(std::move(serviceName)), forker([this](Channel &channel) { return Fork(channel); }) {}

    void Start() {
        forker.Signal();
        static_cast<void>(forker.Await());
    }
    void Kill() { Start(); }

private:
    int Fork(Channel &channel) const {
        std::unique_ptr<ChildProcess> service;
        while (channel.Await()) {
            service.reset(); // killed
            service = std::make_unique<ChildProcess>([this](Channel &told) { return Serve(told, name); });
            if (!service->Await() || !channel.Signal()) {
                return 1;
            }
        }
        return 0;
    }

    const std::string name;
    ChildProcess forker;
};

bool Run(const Options &options) {
    const std::string name = tarvo_test::UniqueName("storm");
    Services services(name);
    services.Start();
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(options.minutes * 60);
    Client client(options, name);
    const std::size_t threads = tarvo_test::ThreadCount();
    bool good = client.Connect();
    std::size_t descriptors = 0;
    std::size_t memory = 0;
    unsigned killed = 0;
    const uint64_t between = options.calls / (options.kills + 1) + 1;
    uint64_t nextKill = options.kills == 0 ? UINT64_MAX : between;
    while (good &&
           (client.Begun() < options.calls || killed < options.kills || std::chrono::steady_clock::now() < end)) {
        client.Turn();
        if (killed < options.kills && client.Begun() >= nextKill) {
            nextKill += between;
            ++killed;
            services.Kill();
        }
        if (!client.Connected()) {
            good = client.Connect();
        }
        if (memory == 0 && client.Begun() > options.calls / 2) {
            memory = UsedMemory();
            descriptors = tarvo_test::OpenDescriptors().size();
        }
    }
    client.EndAll();
    const std::size_t grown = UsedMemory() > memory ? UsedMemory() - memory : 0;
    good = client.Judge() && good;
    fmt::print("{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n", "kills", killed, "bytes more in the second half", grown,
               "threads more", tarvo_test::ThreadCount() - threads);
    return good && grown < GROWTH_LIMIT && tarvo_test::ThreadCount() == threads &&
           tarvo_test::OpenDescriptors().size() <= descriptors;
}

int Main(int argc, char **argv) {
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    options.seed = std::random_device{}();
    CLI::App app{"Makes masses of calls over the loop, with cancels and time-outs. The exit status is the verdict."};
    app.add_option("--calls", options.calls, "how many calls")->capture_default_str();
    app.add_option("--kills", options.kills, "how often the service is killed and restarted")->capture_default_str();
    app.add_option("--minutes", options.minutes, "how long at least")->capture_default_str();
    app.add_option("--seed", options.seed, "for what is cancelled (default: another one each time)");
    CLI11_PARSE(app, argc, argv);
    return Prove([&] {
        fmt::print("seed {}\n", options.seed);
        return Run(options);
    });
}

} // namespace
} // namespace storm

int main(int argc, char **argv) { return storm::Main(argc, argv); }
