// Attributes and pairs of pipes for tests that go through the exported functions or the table.
#ifndef TARVO_SUPPORT_PIPES_H
#define TARVO_SUPPORT_PIPES_H

#include <functional>
#include <future>
#include <string>
#include <utility>

#include "support/Names.h"
#include "tarvo.h"

namespace tarvo_test {

constexpr int PIPE_OPEN_TIMEOUT_MS = 30000;

using Callback = std::function<void(int, TarvoRequest *)>;

// The names must outlive the attribute.
inline TarvoAttr MakeAttr(const std::string &self, const std::string &target, TarvoMode mode, Callback callback = {}) {
    TarvoAttr attr;
    attr.targetName = target.c_str();
    attr.selfName = self.c_str();
    attr.mode = mode;
    // The side that creates the files does not wait; without a time-out its write end opens with the first send.
    attr.timeout = mode == TARVO_MODE_CLIENT ? PIPE_OPEN_TIMEOUT_MS : 0;
    attr.callback = std::move(callback);
    return attr;
}

// What TarvoCreateServer yields. The name must outlive the server.
inline int CreateServer(const std::string &name, void (*callback)(int, TarvoRequest *) = nullptr) {
    TarvoServerAttr attr;
    attr.selfName = name.c_str();
    attr.callback = callback;
    return TarvoCreateServer(&attr);
}

// The handle of a client of that server.
inline int CreateClient(const std::string &self, const std::string &server) {
    TarvoAttr attr = MakeAttr(self, server, TARVO_MODE_CLIENT);
    return TarvoCreateClient(&attr);
}

// Answers every request with its own bytes.
inline void Echo(int fd, TarvoRequest *request) {
    if (request != nullptr) {
        TarvoResponse response{request->id, request->data, request->size};
        TarvoSendResponse(fd, &response);
    }
}

// One synchronous call: the answer, or "error <code>".
inline std::string Ask(int fd, std::string text, int timeout = PIPE_OPEN_TIMEOUT_MS) {
    TarvoRequest request{0, text.data(), static_cast<uint32_t>(text.size())};
    TarvoResponse response{};
    const int ret = TarvoTimedRPCSync(fd, &request, &response, timeout);
    if (ret != 0) {
        return "error " + std::to_string(ret);
    }
    std::string answer(response.data == nullptr ? "" : response.data, response.size);
    DestroyResponse(&response);
    return answer;
}

// Both ends of one pipe, opened in this process. `near` created the files.
class PipePair {
public:
    explicit PipePair(Callback nearCallback = {}, Callback farCallback = {}, bool concurrent = false)
        : nearName(UniqueName("near")), farName(UniqueName("far")) {
        TarvoAttr attr = MakeAttr(nearName, farName, TARVO_MODE_SERVER, std::move(nearCallback));
        attr.isConcur = concurrent;
        near = TarvoOpen(&attr);
        attr = MakeAttr(farName, nearName, TARVO_MODE_CLIENT, std::move(farCallback));
        attr.isConcur = concurrent;
        far = TarvoOpen(&attr);
    }
    ~PipePair() {
        TarvoClosePipe(far);
        TarvoClosePipe(near);
    }
    PipePair(const PipePair &) = delete;
    PipePair &operator=(const PipePair &) = delete;

    const std::string nearName;
    const std::string farName;
    int near = 0;
    int far = 0;
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_PIPES_H
