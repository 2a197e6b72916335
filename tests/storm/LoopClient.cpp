#include "storm/LoopClient.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "storm/Board.h"

namespace storm {
namespace {

constexpr int LONG_TIMEOUT_MS = 60000;
constexpr unsigned OUTSTANDING = 256;
constexpr std::size_t SAMPLES = 1000;

} // namespace

LoopClient::LoopClient(uint64_t seed, std::string serviceName)
    : name(std::move(serviceName)), random(seed), calls(OUTSTANDING) {
    samples.reserve(SAMPLES);
    if (TarvoLoopCreate(&loop) != 0) {
        Fail("no loop can be created");
    }
}

LoopClient::~LoopClient() { TarvoLoopDestroy(loop); }

void LoopClient::Closed(void *context, TarvoLink *) {
    LoopClient &client = Of(context);
    client.closed = true;
    if (client.outstanding != 0) {
        client.Fail("the end of a link comes before those of its calls");
    }
}

bool LoopClient::Connect() {
    TarvoLinkClose(link);
    TarvoLinkCallbacks callbacks = {};
    callbacks.size = sizeof(callbacks);
    callbacks.opened = [](void *context, TarvoLink *, int result) { Of(context).opened = result; };
    callbacks.closed = Closed;
    TarvoLinkOptions options = {};
    options.size = sizeof(options);
    options.target = name.c_str();
    options.self = name.c_str();
    options.gid = TARVO_LOOP_ANY_GROUP;
    options.timeoutMs = LONG_TIMEOUT_MS;
    options.context = this;
    options.callbacks = &callbacks;
    link = nullptr;
    opened = 1;
    closed = false;
    if (TarvoLinkOpen(loop, &options, &link) != 0) {
        return false;
    }
    while (opened == 1) {
        Dispatch(LONG_TIMEOUT_MS);
    }
    return opened == 0;
}

void LoopClient::Turn() {
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

void LoopClient::EndAll() {
    for (Call &call : calls) {
        call.cancelled = call.cancelled || (call.open && TarvoLinkCancel(link, call.number) == 0);
    }
    while (outstanding != 0) {
        Dispatch(LONG_TIMEOUT_MS);
    }
}

bool LoopClient::Judge() const {
    fmt::print("\n{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n{:<40}{:>10}\n", "calls", begun, "answered",
               ends[0], "timed out", ends[1], "cancelled", ends[2], "ended with their link", ends[3]);
    fmt::print("{:<40}{:>10.3f} ms\n{:<40}{:>10}\n", "median time of an answer", static_cast<double>(medianUs) / 1000,
               "failures", failures);
    return failures == 0 && begun == ends[0] + ends[1] + ends[2] + ends[3] && ends[0] != 0 && ends[1] != 0 &&
           ends[2] != 0;
}

void LoopClient::Fail(const char *what) {
    if (failures++ < 10) {
        fmt::print("FAILED: {}\n", what);
    }
}

void LoopClient::Dispatch(int limitMs) {
    pollfd entry = {TarvoLoopFd(loop), POLLIN, 0};
    if (poll(&entry, 1, limitMs) == 0) {
        Fail("nothing happens any more");
        std::exit(1);
    }
    if (TarvoLoopDispatch(loop, 50) < 0) {
        Fail("a dispatch fails");
    }
}

bool LoopClient::Begin(Call &call) {
    call = {this, ++text, 0, Now(), true, false};
    // Time-outs are whole milliseconds; the median lies between two of them.
    const int timeoutMs = random() % 2 == 0 ? static_cast<int>((medianUs + random() % 1000) / 1000) : LONG_TIMEOUT_MS;
    const int64_t number =
        TarvoLinkCall(link, {reinterpret_cast<const char *>(&call.text), sizeof(call.text)}, timeoutMs, Done, &call);
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

void LoopClient::Done(void *context, int result, TarvoBytes answer) {
    auto &call = *static_cast<Call *>(context);
    call.client->End(call, result, answer);
}

void LoopClient::End(Call &call, int result, TarvoBytes answer) {
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

void LoopClient::Sample(double us) {
    samples.push_back(us);
    if (samples.size() == SAMPLES) {
        std::nth_element(samples.begin(), samples.begin() + SAMPLES / 2, samples.end());
        medianUs = static_cast<uint64_t>(samples[SAMPLES / 2]);
        samples.clear();
    }
}

} // namespace storm
