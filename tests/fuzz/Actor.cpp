#include "fuzz/Actor.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <initializer_list>

#include "support/Names.h"

namespace tarvo_test {

namespace {

// The longest time, in ms, that one step waits for what never comes.
constexpr unsigned SHORT = 3;

const std::string &ShortName(unsigned which) {
    static const auto *const names = new std::array<std::string, 4>{
        NameTag() + "a", NameTag() + "b", NameTag() + "c_heartbeat", NameTag() + std::string(90, 'd')};
    return (*names)[which];
}

void RequireOneOf(int result, std::initializer_list<int> documented, const char *function) {
    if (std::find(documented.begin(), documented.end(), result) == documented.end()) {
        Require(false, (std::string(function) + " does not return " + std::to_string(result)).c_str());
    }
}

void RequireOpenResult(int result, const char *function) {
    if (result > 0) {
        return;
    }
    // -1: closed by another thread meanwhile.
    RequireOneOf(result, {-EINVAL, -ENOENT, -ENOMEM, -ETIMEDOUT, -ECANCELED, -ENXIO, -EAGAIN, -1}, function);
}

void RequireSendResult(int result, const char *function) {
    RequireOneOf(result, {0, -EINVAL, -ENOENT, -EAGAIN, -ENXIO, -EPIPE, -EBADF, -1}, function);
}

void RequireCallResult(int result, const char *function) {
    if (result != -ETIMEDOUT && result != -ENOMEM) {
        RequireSendResult(result, function);
    }
}

void SendBack(int handle, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    TarvoResponse response{request->id, request->data, request->size};
    RequireSendResult(TarvoSendResponse(handle, &response), "TarvoSendResponse in a callback");
}

void CloseAtOnce(int handle, TarvoRequest *) {
    RequireOneOf(TarvoClosePipe(handle), {0}, "TarvoClosePipe in a callback");
}

// Asks back, with a question that nobody answers by asking back.
void AskBack(int handle, TarvoRequest *request) {
    if (request == nullptr || request->data[0] == '?') {
        return;
    }
    char text[] = "?";
    TarvoRequest question{0, text, sizeof(text)};
    TarvoResponse response{};
    RequireCallResult(TarvoTimedRPCSync(handle, &question, &response, 1), "TarvoTimedRPCSync in a callback");
    DestroyResponse(&response);
    SendBack(handle, request);
}

using Callback = void (*)(int, TarvoRequest *);

Callback SomeCallback(unsigned choice) {
    constexpr std::array<Callback, 4> callbacks = {nullptr, SendBack, CloseAtOnce, AskBack};
    return callbacks[choice % callbacks.size()];
}

} // namespace

bool Actor::ActOnce() {
    using Step = void (Actor::*)();
    constexpr std::array<Step, 16> steps = {
        &Actor::OpenBothEnds, &Actor::OpenByName, &Actor::OpenInShort, &Actor::ConnectToServer,
        &Actor::Send,         &Actor::Send,       &Actor::Answer,      &Actor::Call,
        &Actor::Call,         &Actor::Close,      &Actor::Close,       &Actor::Clean,
        &Actor::StartServer,  &Actor::Ask,        &Actor::OpenByName,  &Actor::CleanUpAfterSignal};
    if (input.Empty()) {
        return false;
    }
    (this->*steps[input.Below(steps.size())])();
    return true;
}

const char *Actor::SomeName() {
    switch (const unsigned choice = input.Below(16)) {
    case 15:
        return nullptr;
    case 14:
        return "";
    case 13:
        return "a|b";
    case 12:
        return "no/such/directory";
    case 11:
        return server.c_str();
    default:
        return ShortName(choice % 4).c_str();
    }
}

TarvoAttr Actor::SomeAttr() {
    TarvoAttr attr;
    attr.targetName = SomeName();
    attr.selfName = SomeName();
    const uint8_t options = input.Byte();
    attr.mode = static_cast<TarvoMode>(options % 2);
    // Never 0, which has no limit in client mode: also the mode of a pipe that was opened with it, in vain, before.
    attr.timeout = static_cast<int32_t>(1 + options / 2 % SHORT);
    attr.isConcur = options / 4 % 2 != 0;
    attr.priority = static_cast<TarvoPriority>(options / 8 % 4);
    attr.domain = static_cast<TarvoDomain>(options / 32 % 3);
    attr.callback = SomeCallback(input.Byte());
    return attr;
}

void Actor::OpenByName() {
    TarvoAttr attr = SomeAttr();
    const auto type = static_cast<TarvoPipeType>(input.Below(4));
    const int result = type == TARVO_NORMAL_PIPE ? TarvoOpen(&attr) : TarvoPipeTypeOpen(&attr, type);
    RequireOpenResult(result, "TarvoPipeTypeOpen");
    Remember(result);
}

void Actor::OpenBothEnds() {
    const std::string &one = ShortName(input.Below(4));
    const std::string &other = ShortName(input.Below(4));
    TarvoAttr attr = SomeAttr();
    attr.selfName = one.c_str();
    attr.targetName = other.c_str();
    attr.mode = TARVO_MODE_SERVER;
    int result = TarvoOpen(&attr);
    RequireOpenResult(result, "TarvoOpen");
    Remember(result);
    std::swap(attr.selfName, attr.targetName);
    attr.mode = TARVO_MODE_CLIENT;
    attr.timeout = SHORT;
    attr.callback = SomeCallback(input.Byte());
    result = TarvoOpen(&attr);
    RequireOpenResult(result, "TarvoOpen");
    Remember(result);
}

void Actor::OpenInShort() {
    const char *name = SomeName();
    const auto mode = static_cast<TarvoMode>(input.Below(3));
    const int result = TarvoOpen(name, SomeCallback(input.Byte()), 1, mode);
    RequireOpenResult(result, "TarvoOpen in short");
    Remember(result);
}

void Actor::ConnectToServer() {
    TarvoAttr attr = SomeAttr();
    if (input.Flag()) {
        attr.targetName = server.c_str();
        attr.mode = TARVO_MODE_CLIENT;
        attr.timeout = SHORT;
    }
    const int result = TarvoCreateClient(&attr);
    RequireOpenResult(result, "TarvoCreateClient");
    Remember(result);
}

void Actor::StartServer() {
    TarvoServerAttr attr;
    attr.selfName = SomeName();
    attr.priority = static_cast<TarvoPriority>(input.Below(4));
    RequireOneOf(TarvoCreateServer(&attr), {-EEXIST, -EINVAL}, "TarvoCreateServer");
}

void Actor::Send() {
    TarvoRequest request{input.Byte(), SomeData(), SomeSize()};
    const int handle = SomeHandle();
    // Often enough to fill a FIFO now and then.
    for (unsigned times = 1 + input.Below(24); times > 0; --times) {
        RequireSendResult(TarvoSendRequest(handle, &request), "TarvoSendRequest");
    }
}

void Actor::Answer() {
    TarvoResponse response{input.Byte(), SomeData(), SomeSize()};
    RequireSendResult(TarvoSendResponse(SomeHandle(), &response), "TarvoSendResponse");
}

void Actor::Call() {
    TarvoRequest request{0, SomeData(), SomeSize()};
    TarvoResponse response{};
    const bool wanted = input.Below(4) != 0;
    const int result =
        TarvoTimedRPCSync(SomeHandle(), &request, wanted ? &response : nullptr, static_cast<int>(input.Below(SHORT)));
    RequireCallResult(result, "TarvoTimedRPCSync");
    Require(result == 0 || response.data == nullptr, "a call that fails has no response");
    DestroyResponse(&response);
    Require(response.data == nullptr, "a released response has no data");
}

void Actor::Close() { RequireOneOf(TarvoClosePipe(SomeHandle()), {0}, "TarvoClosePipe"); }

void Actor::Clean() { RequireOneOf(TarvoCleanPipe(SomeHandle()), {0}, "TarvoCleanPipe"); }

void Actor::CleanUpAfterSignal() {
    // Seldom: it takes the files of every pipe, and nothing opens afterwards.
    if (input.Below(4) == 0) {
        TarvoExceptionHandler(input.Byte());
    }
}

void Actor::Ask() {
    Require(TarvoServiceIsExist() == 1, "the library is there");
    const auto domain = static_cast<TarvoDomain>(input.Below(3));
    Require(!IsCrossDomainPipe(domain) || domain != TARVO_DOMAIN_LOCAL, "this domain is not across");
    Require(!IsOrlaDomainPipe(domain) || GetCurrDomain() == TARVO_DOMAIN_ORLA, "the orla directory is orla's");
    DestroyResponse(nullptr);
    TarvoAttr *nothing = nullptr;
    Require(TarvoOpen(nothing) == -EINVAL && TarvoCreateClient(nothing) == -EINVAL &&
                TarvoPipeTypeOpen(nothing, TARVO_NORMAL_PIPE) == -EINVAL && TarvoCreateServer(nullptr) == -EINVAL,
            "nothing is opened without attributes");
    Require(TarvoSendRequest(SomeHandle(), nullptr) == -EINVAL && TarvoSendResponse(SomeHandle(), nullptr) == -EINVAL,
            "nothing is sent without a message");
}

void Actor::Remember(int handle) {
    if (handle > 0) {
        handles[next++ % handles.size()] = handle;
    }
}

// A pipe of this actor, or one that there is not yet, or none. Never the honest client's: it is older than all these.
int Actor::SomeHandle() {
    const unsigned choice = input.Below(8);
    if (choice < handles.size()) {
        return handles[choice];
    }
    constexpr std::array<int, 4> none = {0, -1, INT_MIN, INT_MAX};
    return handles[0] > 0 && choice % 2 == 0 ? handles[0] + static_cast<int>(choice) : none[choice - handles.size()];
}

uint32_t Actor::SomeSize() {
    const uint32_t size = input.Word();
    return size < data.size() ? size : (size % 2 == 0 ? size : size * 65537);
}

char *Actor::SomeData() {
    const uint8_t choice = input.Byte();
    data.fill(static_cast<char>(choice));
    return choice == UINT8_MAX ? nullptr : data.data();
}

} // namespace tarvo_test
