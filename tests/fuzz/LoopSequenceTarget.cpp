// Sequences of calls of the functions of the loop, outside of callbacks and inside them, over links whose ends are all
// on one loop.
//
// Input: steps, a few bytes each. Each link and each call keeps its own account: what is opened is told once, a call
// ends once and not inside its beginning, the end of a link comes once, after all of that, and nothing comes after its
// close. When the loop is destroyed nothing is left.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/LoopSide.h"
#include "fuzz/Target.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

constexpr int MOST_STEPS = 200;
constexpr std::size_t LINKS = 5;
constexpr std::size_t SERVICES = 2;
constexpr std::size_t NAMES = 3;

class Play;

struct Account {
    Play *play = nullptr;
    TarvoLink *link = nullptr;
    bool ofAService = false;
    bool open = false;
    bool told = false;   // how its open has ended
    bool closed = false; // by the remote
    bool given = false;  // closed by the program
    int outstanding = 0;
    std::vector<uint32_t> requests;
};

struct Call {
    std::shared_ptr<Account> account;
    int64_t number = 0;
    bool beginning = true;
    bool ended = false;
};

// Owns: the loop and everything of it. Threads: one. Ends: any time.
class Play {
public:
    explicit Play(Bytes &steps) : input(steps) { Require(TarvoLoopCreate(&loop) == 0, "a loop can be created"); }
    ~Play() {
        if (loop != nullptr) {
            TarvoLoopDestroy(loop);
        }
    }
    Play(const Play &) = delete;
    Play &operator=(const Play &) = delete;

    bool Step() {
        if (input.Empty() || loop == nullptr) {
            return false;
        }
        Act();
        return loop != nullptr;
    }

    // Everything that is due has its end.
    void Finish() {
        if (loop == nullptr) {
            return;
        }
        inside = true; // callbacks do nothing more
        for (auto &slot : links) {
            Close(slot);
        }
        for (auto &account : served) {
            Close(account);
        }
        for (TarvoService *&service : services) {
            TarvoServiceClose(service);
            service = nullptr;
        }
        for (int i = 0; i < 1000 && TarvoLoopDispatch(loop, 100) > 0; ++i) {
        }
        for (const auto &call : calls) {
            Require(call->ended, "each call ends");
        }
        Require(posted == ran, "what was posted runs");
    }

private:
    using Slot = std::shared_ptr<Account>;

    static std::string Name(unsigned number) { return NameTag() + static_cast<char>('a' + number % NAMES); }

    TarvoLinkCallbacks Callbacks() const {
        TarvoLinkCallbacks callbacks = {};
        callbacks.size = sizeof(callbacks);
        callbacks.opened = [](void *context, TarvoLink *link, int result) {
            Account &account = Of(context, link);
            Require(!account.told && !account.ofAService, "an open ends once");
            account.told = true;
            account.open = result == 0;
            account.play->ActInside();
        };
        callbacks.request = [](void *context, TarvoLink *link, uint32_t request, TarvoBytes payload) {
            Account &account = Of(context, link);
            Require(account.open && payload.size >= 1 && payload.data[0] == 'p', "a request is one that was sent");
            account.requests.push_back(request);
            account.play->ActInside();
        };
        callbacks.closed = [](void *context, TarvoLink *link) {
            Account &account = Of(context, link);
            Require(account.open && account.outstanding == 0, "the end of a link comes after those of its calls");
            account.closed = true;
            account.play->ActInside();
            // The library closes it.
            account.given = account.given || account.ofAService;
        };
        callbacks.writable = [](void *context, TarvoLink *link) {
            Require(Of(context, link).open, "only an open link can be written to");
            Of(context, link).play->ActInside();
        };
        return callbacks;
    }

    static Account &Of(void *context, TarvoLink *link) {
        auto &account = *static_cast<Account *>(context);
        Require(account.link == link && !account.given && !account.closed, "nothing comes after the end of a link");
        return account;
    }

    static void Done(void *context, int result, TarvoBytes answer) {
        auto &call = *static_cast<Call *>(context);
        Require(!call.beginning && !call.ended, "a call ends once, and not inside its beginning");
        Require(result == 0 || result == -ETIMEDOUT || result == -EPIPE || result == -ECANCELED, "in one of four ways");
        Require(result != 0 || (answer.size == 1 && answer.data[0] == 'r'), "with its answer");
        Require(!call.account->closed, "before its link");
        Require(!call.account->given || result == -ECANCELED, "cancelled, when its link was closed");
        call.ended = true;
        --call.account->outstanding;
        call.account->play->ActInside();
    }

    void ActInside() {
        if (inside || (input.Byte() & 3U) != 0) {
            return;
        }
        inside = true;
        Act();
        inside = false;
    }

    // A link that the program may use; null when there is none there.
    Account *Pick() {
        const unsigned number = input.Byte();
        if (number % 2 == 1 && !served.empty()) {
            const Slot &slot = served[number / 2 % served.size()];
            return slot->given ? nullptr : slot.get();
        }
        return links[number / 2 % LINKS].get();
    }

    Slot Shared(Account *account) {
        for (const auto &list : {std::vector<Slot>(links.begin(), links.end()), served}) {
            for (const Slot &slot : list) {
                if (slot.get() == account) {
                    return slot;
                }
            }
        }
        return nullptr;
    }

    void Act() {
        switch (input.Byte() % 16) {
        case 0:
        case 1:
            return Open();
        case 2:
            return Serve();
        case 3:
            return CloseOne();
        case 4:
            return CloseService();
        case 5:
            return Send(input.Flag() ? 4000 : 1 + input.Byte());
        case 6:
            return BeginCall();
        case 7:
            return Cancel();
        case 8:
            return Reply();
        case 9:
            return Hold();
        case 10:
            return Post();
        case 11:
            return Block();
        case 12:
            return Disturb();
        default:
            return Dispatch();
        }
    }

    void Open() {
        Slot &slot = links[input.Byte() % LINKS];
        if (slot != nullptr) {
            return;
        }
        const std::string target = Name(input.Byte());
        const std::string self = Name(input.Byte());
        auto account = std::make_shared<Account>();
        account->play = this;
        const TarvoLinkCallbacks callbacks = Callbacks();
        TarvoLinkOptions options = {};
        options.size = sizeof(options);
        options.kind = static_cast<TarvoLinkKind>(input.Byte() % 3);
        options.target = target.c_str();
        options.self = self.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.timeoutMs = input.Flag() ? 60000 : input.Byte() % 4;
        options.context = account.get();
        options.callbacks = &callbacks;
        const int result = TarvoLinkOpen(loop, &options, &account->link);
        Require(result == 0 || result == -EEXIST || result == -ENXIO, "a link opens, or is there, or has no server");
        Require(!account->told, "not inside its beginning");
        if (result == 0) {
            slot = account;
            all.push_back(account);
        }
    }

    void Serve() {
        TarvoService *&service = services[input.Byte() % SERVICES];
        if (service != nullptr) {
            return;
        }
        const std::string name = Name(input.Byte());
        const TarvoLinkCallbacks callbacks = Callbacks();
        TarvoServiceOptions options = {};
        options.size = sizeof(options);
        options.name = name.c_str();
        options.gid = TARVO_LOOP_ANY_GROUP;
        options.replace = input.Flag() ? 1 : 0;
        options.context = this;
        options.client = [](void *context, TarvoService *, TarvoLink *link, const char *) {
            static_cast<Play *>(context)->Welcome(link);
        };
        options.callbacks = &callbacks;
        const int result = TarvoServiceOpen(loop, &options, &service);
        Require(result == 0 || result == -EADDRINUSE, "a service opens, or its name is taken");
    }

    void Welcome(TarvoLink *link) {
        auto account = std::make_shared<Account>();
        account->play = this;
        account->link = link;
        account->ofAService = true;
        account->open = true;
        account->told = true;
        served.push_back(account);
        all.push_back(account);
        Require(TarvoLinkSetContext(link, account.get()) == 0, "a client can be given a context");
        ActInside();
    }

    void Close(const Slot &slot) {
        if (slot != nullptr && !slot->given) {
            slot->given = true;
            Require(TarvoLinkClose(slot->link) == 0, "a link can be closed");
        }
    }

    void CloseOne() {
        const unsigned number = input.Byte();
        if (number % 2 == 1 && !served.empty()) {
            Close(served[number / 2 % served.size()]);
        } else {
            Close(links[number / 2 % LINKS]);
            links[number / 2 % LINKS] = nullptr;
        }
    }

    void CloseService() {
        TarvoService *&service = services[input.Byte() % SERVICES];
        Require(TarvoServiceClose(service) == 0, "a service can be closed");
        service = nullptr;
    }

    static bool Sent(const Account &account, int64_t result) {
        // It may be open already, and nobody has been told yet.
        Require(result != 0 || ((account.open || !account.told) && !account.closed), "only an open link sends");
        Require(result == 0 || result == -EAGAIN || result == -EPIPE || (result == -ENOTCONN && !account.open),
                "a send is refused for a reason");
        return result == 0;
    }

    void Send(std::size_t size) {
        if (const Account *account = Pick()) {
            const std::string payload(size, 'p');
            Sent(*account, TarvoLinkSend(account->link, {payload.data(), static_cast<uint32_t>(size)}));
        }
    }

    void BeginCall() {
        Account *const account = Pick();
        if (account == nullptr) {
            return;
        }
        calls.push_back(std::make_unique<Call>());
        Call &call = *calls.back();
        call.account = Shared(account);
        const int timeoutMs = input.Flag() ? -1 : input.Byte() % 8;
        call.number = TarvoLinkCall(account->link, {"pq", 2}, timeoutMs, Done, &call);
        call.beginning = false;
        if (call.number > 0) {
            ++account->outstanding;
        } else {
            Sent(*account, call.number);
            Require(call.number != 0, "a call has a number above 0");
            calls.pop_back();
        }
    }

    void Cancel() {
        if (calls.empty()) {
            return;
        }
        Call &call = *calls[input.Byte() % calls.size()];
        if (!call.account->given) {
            const int result = TarvoLinkCancel(call.account->link, call.number);
            Require(result == 0 || result == -ENOENT, "a call is cancelled or has ended");
            Require(result != 0 || !call.ended, "a call that has ended cannot be cancelled");
        }
    }

    void Reply() {
        Account *const account = Pick();
        if (account == nullptr || account->requests.empty()) {
            return;
        }
        const std::size_t at = input.Byte() % account->requests.size();
        const int result = TarvoLinkReply(account->link, account->requests[at], {"r", 1});
        if (Sent(*account, result)) {
            Require(TarvoLinkReply(account->link, account->requests[at], {"r", 1}) == -ENOENT, "a reply is one");
            account->requests.erase(account->requests.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }

    void Hold() {
        if (const Account *account = Pick()) {
            const int result = input.Flag() ? TarvoLinkHold(account->link) : TarvoLinkFlush(account->link);
            Require(result == 0 || result == -EAGAIN || result == -EPIPE || result == -ENOTCONN, "a hold, or a flush");
        }
    }

    void Post() {
        ++posted;
        const auto run = [](void *context) {
            auto *play = static_cast<Play *>(context);
            ++play->ran;
            play->ActInside();
        };
        Require(TarvoLoopPost(loop, run, this) == 0, "a function can be posted");
    }

    void Block() {
        if (const Account *account = Pick()) {
            char room[8];
            uint32_t size = sizeof(room);
            const int result = TarvoLinkCallSync(account->link, {"pq", 2}, input.Byte() % 3, room, &size);
            Require((result == -EDEADLK) == (inside || dispatching), "a call cannot wait inside a callback");
            Require(result != 0 || (size == 1 && room[0] == 'r'), "a call has its answer");
        }
    }

    // What other processes may do to the files.
    void Disturb() {
        const std::string name = Name(input.Byte());
        const std::string file = input.Flag() ? FifoDirectory() + name : FifoPath(name, Name(input.Byte()));
        unlink(file.c_str());
    }

    void Dispatch() {
        const int most = 1 + input.Byte() % 20;
        const bool nested = dispatching;
        dispatching = true;
        const int result = TarvoLoopDispatch(loop, most);
        dispatching = nested;
        Require(nested ? result == -EDEADLK : result >= 0 && result <= most,
                "a dispatch runs as many callbacks as it may");
    }

    Bytes &input;
    TarvoLoop *loop = nullptr;
    bool inside = false;
    bool dispatching = false;
    int posted = 0;
    int ran = 0;
    std::array<Slot, LINKS> links;
    std::vector<Slot> served;
    std::array<TarvoService *, SERVICES> services{};
    std::vector<Slot> all; // contexts outlive their links
    std::vector<std::unique_ptr<Call>> calls;
};

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    TheHonestLink().Call();
    static const std::size_t descriptors = DescriptorCount();
    static const std::vector<std::string> files = OwnFifoFiles();
    Bytes input(data, size);
    {
        Play play(input);
        for (int step = 0; step < MOST_STEPS && play.Step(); ++step) {
        }
        play.Finish();
    }
    TheHonestLink().Call();
    Require(DescriptorCount() == descriptors, "every descriptor is closed");
    for (const std::string &file : OwnFifoFiles()) {
        // Those that a step has removed under their owner, and another has made, belong to nobody.
        if (std::find(files.begin(), files.end(), file) == files.end()) {
            unlink((FifoDirectory() + file).c_str());
        }
    }
    return 0;
}
