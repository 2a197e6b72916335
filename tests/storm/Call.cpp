#include "storm/Call.h"

#include <cstddef>
#include <cstring>

namespace storm {

namespace {

// A request's bytes: the question, and a pattern from its number.
class Payload {
public:
    Payload(const Question &question, uint32_t bytes) : size(bytes) {
        for (uint32_t i = sizeof(Question); i < size; ++i) {
            data[i] = static_cast<char>(question.number * 31 + i);
        }
        std::memcpy(data, &question, sizeof(question));
    }

    TarvoRequest Request() { return {0, data, size}; }

    // The answer differs in the server's generation only.
    bool Matches(const TarvoResponse &response) const {
        Question sent;
        Question come;
        if (response.size != size || response.data == nullptr) {
            return false;
        }
        std::memcpy(&sent, data, sizeof(sent));
        std::memcpy(&come, response.data, sizeof(come));
        return sent.number == come.number && sent.caller == come.caller &&
               std::memcmp(data + sizeof(sent), response.data + sizeof(sent), size - sizeof(sent)) == 0;
    }

private:
    uint32_t size;
    char data[LARGEST];
};

} // namespace

Reply Ask(int fd, const Question &question, uint32_t size, int timeout) {
    Payload payload(question, size);
    TarvoRequest request = payload.Request();
    TarvoResponse response{};
    Reply reply;
    reply.result = TarvoTimedRPCSync(fd, &request, &response, timeout);
    if (reply.result == 0 && response.data == nullptr) {
        reply.result = -1; // closed by another thread between the sending and the waiting
    }
    if (reply.result == 0) {
        reply.right = payload.Matches(response) && response.id == request.id;
        Question come;
        std::memcpy(&come, response.data, sizeof(come));
        reply.serverGeneration = come.serverGeneration;
    }
    DestroyResponse(&response);
    return reply;
}

int Send(int fd, const Question &question, uint32_t size) {
    Payload payload(question, size);
    TarvoRequest request = payload.Request();
    return TarvoSendRequest(fd, &request);
}

std::optional<Question> QuestionOf(const TarvoRequest &request) {
    if (request.size < sizeof(Question)) {
        return std::nullopt;
    }
    Question question;
    std::memcpy(&question, request.data, sizeof(question));
    return question;
}

int Answer(int fd, const TarvoRequest &request, uint32_t serverGeneration) {
    std::memcpy(request.data + offsetof(Question, serverGeneration), &serverGeneration, sizeof(serverGeneration));
    TarvoResponse response{request.id, request.data, request.size};
    return TarvoSendResponse(fd, &response);
}

int Notify(int fd) {
    char text[] = "notice";
    TarvoRequest request{0, text, sizeof(text)};
    return TarvoSendRequest(fd, &request);
}

} // namespace storm
