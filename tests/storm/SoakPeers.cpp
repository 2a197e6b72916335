#include "storm/SoakPeers.h"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <optional>
#include <vector>

#include "storm/Call.h"
#include "support/Threads.h"

namespace storm {

namespace {

constexpr int OPEN_TIMEOUT_MS = 500;
constexpr int CALL_TIMEOUT_MS = 10000;
constexpr uint32_t ONE_WAY = 1; // in Question::serverGeneration: wants no answer
// Between two calls of a visitor, and between two attempts to connect.
constexpr int PACE_MS = 1;

SoakBoard *shared = nullptr; // the callbacks are plain functions

bool Finished(const SoakBoard &board) { return board.board.Get() == Command::Finish; }

void OnRequest(int fd, TarvoRequest *request) {
    const std::optional<Question> question = request == nullptr ? std::nullopt : QuestionOf(*request);
    if (!question) {
        return;
    }
    if (question->serverGeneration == ONE_WAY) {
        ++shared->received;
    } else {
        Answer(fd, *request, 0);
    }
}

uint32_t SizeOf(uint32_t number) { return number % 10 == 0 ? LARGEST : 24 + number % 500; }

Question MakeQuestion(uint32_t number) {
    Question question;
    question.number = number;
    question.caller = getpid();
    return question;
}

// A soak is about what adds up, not about speed.
void Pause(const SoakBoard &board) { usleep(board.paceUs); }

bool CallOnce(SoakBoard &board, int fd, uint32_t number) {
    const int64_t start = Now();
    const Reply reply = Ask(fd, MakeQuestion(number), SizeOf(number), CALL_TIMEOUT_MS);
    if (reply.result != 0) {
        ++board.refused;
        return false;
    }
    board.latency.Add((Now() - start) / 1000);
    ++board.calls;
    board.wrong += reply.right ? 0 : 1;
    return true;
}

bool SendOnce(SoakBoard &board, int fd, uint32_t number) {
    Question question = MakeQuestion(number);
    question.serverGeneration = ONE_WAY;
    const int result = Send(fd, question, SizeOf(number));
    ++(result == 0 ? board.oneWay : board.refused);
    // A full FIFO only means that the receiver is slower just now.
    return result == 0 || result == -EAGAIN;
}

int Connect(const std::string &server, const std::string &self) {
    TarvoAttr attr;
    attr.targetName = server.c_str();
    attr.selfName = self.c_str();
    attr.timeout = OPEN_TIMEOUT_MS;
    return TarvoCreateClient(&attr);
}

// Does one thing over a pipe to the server again and again, over a new pipe when the old one fails.
template <typename Action>
int StayBusy(SoakBoard &board, const std::string &server, const std::string &self, Action action) {
    std::signal(SIGPIPE, SIG_IGN);
    int fd = 0;
    for (uint32_t number = 1; !Finished(board); ++number) {
        if (fd <= 0) {
            fd = Connect(server, self);
        }
        if (fd > 0 && !action(board, fd, number)) {
            TarvoClosePipe(fd);
            fd = 0;
        }
        Pause(board);
    }
    TarvoCfgFinishServer();
    return 0;
}

} // namespace

int SoakServer(SoakBoard &board, const std::string &name, TarvoPriority priority) {
    shared = &board;
    std::signal(SIGPIPE, SIG_IGN);
    TarvoServerAttr attr;
    attr.callback = OnRequest;
    attr.selfName = name.c_str();
    attr.priority = priority;
    int result = TarvoCreateServer(&attr);
    if (result == -EPERM) {
        attr.priority = TARVO_PRIORITY_NORMAL;
        result = TarvoCreateServer(&attr);
    }
    if (result != 0) {
        return 1;
    }
    board.board.AwaitOther(Command::Run);
    TarvoCfgFinishServer();
    return 0;
}

int SoakCaller(SoakBoard &board, const std::string &server, const std::string &self) {
    return StayBusy(board, server, self, CallOnce);
}

int SoakSender(SoakBoard &board, const std::string &server, const std::string &self) {
    return StayBusy(board, server, self, SendOnce);
}

int SoakVisitor(SoakBoard &board, const std::string &server, const std::string &self, unsigned calls) {
    std::signal(SIGPIPE, SIG_IGN);
    int fd = 0;
    while (!Finished(board) && (fd = Connect(server, self)) < 0) {
        poll(nullptr, 0, PACE_MS);
    }
    for (unsigned i = 1; i <= calls && CallOnce(board, fd, i); ++i) {
        poll(nullptr, 0, PACE_MS);
    }
    TarvoClosePipe(fd);
    TarvoCfgFinishServer();
    return 0;
}

int SoakConcurrentMaker(SoakBoard &board, const std::string &self, const std::string &other) {
    shared = &board;
    std::signal(SIGPIPE, SIG_IGN);
    TarvoAttr attr;
    attr.targetName = other.c_str();
    attr.selfName = self.c_str();
    attr.callback = OnRequest;
    attr.mode = TARVO_MODE_SERVER;
    attr.timeout = 0;
    attr.isConcur = true;
    if (TarvoOpen(&attr) < 0) {
        return 1;
    }
    board.board.AwaitOther(Command::Run);
    TarvoCfgFinishServer();
    return 0;
}

int SoakConcurrentCaller(SoakBoard &board, const std::string &self, const std::string &other, unsigned threads) {
    std::signal(SIGPIPE, SIG_IGN);
    TarvoAttr attr;
    attr.targetName = other.c_str();
    attr.selfName = self.c_str();
    attr.timeout = CALL_TIMEOUT_MS;
    const int fd = TarvoOpen(&attr);
    if (fd < 0) {
        return 1;
    }
    tarvo_test::OnThreads(static_cast<int>(threads), [&board, fd, threads](int first) {
        for (auto number = static_cast<uint32_t>(first); !Finished(board); number += threads) {
            CallOnce(board, fd, number);
            Pause(board);
        }
    });
    TarvoCfgFinishServer();
    return 0;
}

} // namespace storm
