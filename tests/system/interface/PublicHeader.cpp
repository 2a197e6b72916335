// What a user of the library compiles: the public header alone, in several versions of the language. Calls every
// exported function and fails when one does not answer as its contract says.
#include <tarvo.h>

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>

namespace {

int failures = 0;

void Check(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        failures++;
    }
}
#define CHECK(condition) Check(condition, #condition)

std::promise<std::string> oneWay;

// Calls, which carry the id that the library chose, are answered; the one-way request is kept.
void Answer(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        return;
    }
    std::string text(request->data, request->size);
    if (text == "one-way") {
        oneWay.set_value(text);
        return;
    }
    text += " back";
    TarvoResponse response{request->id, &text[0], static_cast<uint32_t>(text.size())};
    CHECK(TarvoSendResponse(fd, &response) == 0);
}

TarvoRequest RequestOf(std::string &text) { return {0, &text[0], static_cast<uint32_t>(text.size())}; }

void CheckCalls(int fd) {
    std::string text = "there and";
    TarvoRequest request = RequestOf(text);
    TarvoResponse response{};
    CHECK(TarvoTimedRPCSync(fd, &request, &response, 10000) == 0);
    CHECK(response.data != nullptr && std::string(response.data, response.size) == "there and back");
    DestroyResponse(&response);
    CHECK(response.data == nullptr);
    CHECK(TarvoRPCSync(fd, &request, &response) == 0);
    DestroyResponse(&response);

    std::string event = "one-way";
    TarvoRequest oneWayRequest = RequestOf(event);
    CHECK(TarvoSendRequest(fd, &oneWayRequest) == 0);
    CHECK(oneWay.get_future().get() == "one-way");
}

void CheckRefusals() {
    CHECK(TarvoOpen(nullptr) == -EINVAL);
    CHECK(TarvoOpen(nullptr, nullptr, 1, TARVO_MODE_SERVER) == -EINVAL);
    CHECK(TarvoCreateClient(nullptr) == -EINVAL);
    CHECK(TarvoPipeTypeOpen(nullptr, TARVO_NORMAL_PIPE) == -EINVAL);
    CHECK(TarvoCreateServer(nullptr) == -EINVAL);
    CHECK(TarvoSendRequest(1, nullptr) == -EINVAL);
    CHECK(TarvoSendResponse(1, nullptr) == -EINVAL);
    CHECK(TarvoTimedRPCSync(1, nullptr, nullptr, 1) == -EINVAL);
    CHECK(TarvoRPCSync(1, nullptr, nullptr) == -EINVAL);
    DestroyResponse(nullptr);
}

void CheckDomain() {
    const TarvoDomain here = GetCurrDomain();
    CHECK(here == TARVO_DOMAIN_DP);
    CHECK(!IsOrlaDomainPipe(here));
    CHECK(!IsCrossDomainPipe(here));
    CHECK(IsCrossDomainPipe(TARVO_DOMAIN_ORLA));
    NuroCoreSetaffinity();
}

void CheckServerAndClient() {
    const std::string name = "header_" + std::to_string(getpid());
    TarvoServerAttr server;
    server.selfName = name.c_str();
    server.callback = Answer;
    CHECK(TarvoCreateServer(&server) == 0);

    TarvoAttr client;
    client.targetName = name.c_str();
    client.timeout = 10000;
    client.callback = [](int, TarvoRequest *) {};
    const int fd = TarvoCreateClient(&client);
    CHECK(fd > 0);
    CHECK(TarvoServiceIsExist() == 1);
    if (fd > 0) {
        CheckCalls(fd);
    }
    char remote[101] = "";
    CHECK(TarvoGetRemoteName(fd, remote, sizeof(remote)) == 0 && remote == name);
    CHECK(TarvoCleanPipe(fd) == 0);
    CHECK(TarvoClosePipe(fd) == 0);
    TarvoExceptionHandler(0); // removes what is left in the FIFO directory
    TarvoCfgFinishServer();
    CHECK(TarvoServiceIsExist() == 0);
}

} // namespace

int main() {
    std::signal(SIGPIPE, SIG_IGN);
    CheckRefusals();
    CheckDomain();
    CheckServerAndClient();
    return failures == 0 ? 0 : 1;
}
