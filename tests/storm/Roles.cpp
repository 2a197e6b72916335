#include "storm/Roles.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <string>

#include "storm/Call.h"
#include "support/FakeClock.h"
#include "support/Sanitized.h"
#include "tarvo.h"

namespace storm {

namespace {

// How long an open waits for a server that may have died with the packet: short, since only another attempt helps.
const int OPEN_TIMEOUT_MS = tarvo_test::Rounds(300, 3000);
constexpr int CALL_TIMEOUT_MS = 30000;
constexpr int PAUSE_MS = 2;
// Every so many calls the server also sends a request of its own.
constexpr uint32_t CALLS_PER_NOTICE = 4;
// Longer than an idle thread of the library lives.
constexpr std::chrono::seconds IDLE{61};
constexpr int IDLE_STEP_MS = 20;

// The callbacks are plain functions.
Life *self = nullptr;

void Tell(const Life &life) {
    const uint64_t one = 1;
    // Past the functions that the test program defines: this is no write of the library.
    syscall(SYS_write, life.progress, &one, sizeof(one));
}

// Lets idle threads end as if a minute had passed, so that what a survivor holds can be compared.
class Idling {
public:
    explicit Idling(bool wanted) {
        if (wanted) {
            clock.emplace();
        }
    }
    // Passes minute after minute, since some thread may have become idle just now, until the rest is over.
    void PassUntilOther(const Board &board) {
        while (clock && board.Get() == Command::Rest) {
            clock->Advance(IDLE);
            poll(nullptr, 0, IDLE_STEP_MS);
        }
        board.AwaitOther(Command::Rest);
    }

private:
    std::optional<tarvo_test::FakeClock> clock;
};

// ---- The server ----

void OnOpen(int, const char *, uint32_t) { Meet(Moment::InOpenCallback); }

void OnRequest(int fd, TarvoRequest *request) {
    if (request == nullptr) {
        Meet(Moment::InCloseCallback);
        return;
    }
    Meet(Moment::InCallback);
    const std::optional<Question> question = QuestionOf(*request);
    if (!question) {
        return;
    }
    if (question->killCaller) {
        kill(question->caller, SIGKILL);
        return;
    }
    Answer(fd, *request, self->generation);
    if (question->number % CALLS_PER_NOTICE == 0) {
        Notify(fd);
    }
}

// ---- The client ----

void OnNotice(int, TarvoRequest *request) { Meet(request == nullptr ? Moment::InCloseCallback : Moment::InCallback); }

class Client {
public:
    explicit Client(const Life &one) : life(one), entry(one.board->clients[one.index]), idling(one.survivor) {}

    int Run() {
        for (;;) {
            const Command command = life.board->Get();
            if (command == Command::Finish) {
                break;
            }
            if (command == Command::Rest) {
                Rest();
            } else if (pipe > 0 || Connect()) {
                Converse();
            }
        }
        TarvoCfgFinishServer();
        return 0;
    }

private:
    bool Connect() {
        TarvoAttr attr;
        attr.targetName = life.server.c_str();
        attr.selfName = life.client.c_str();
        attr.callback = OnNotice;
        attr.timeout = OPEN_TIMEOUT_MS;
        pipe = TarvoCreateClient(&attr);
        if (pipe < 0) {
            poll(nullptr, 0, PAUSE_MS);
        }
        return pipe > 0;
    }

    void Converse() {
        ++calls;
        Question question;
        question.caller = getpid();
        question.number = calls;
        question.killCaller = WantsToDieWaiting();
        // Half of the callers wait without a limit: nothing but the library's own notice of a lost peer ends that.
        const int timeout = calls % 2 == 0 || question.killCaller ? -1 : CALL_TIMEOUT_MS;
        const Reply reply = Ask(pipe, question, PayloadSize(), timeout);
        if (reply.result != 0) {
            TarvoClosePipe(pipe);
            pipe = 0;
            return;
        }
        if (!reply.right) {
            ++entry.wrong;
        }
        Note(reply.serverGeneration);
    }

    void Note(uint32_t serverGeneration) {
        ++entry.answers;
        const uint64_t both = uint64_t{life.generation} << 32 | serverGeneration;
        if (entry.answered.load() != both) {
            entry.answeredAt = Now();
            entry.answered = both;
            Tell(life);
        }
        if (life.moment == Moment::Closing && calls % 8 == 0) {
            TarvoClosePipe(pipe);
            pipe = 0;
        }
    }

    void Rest() {
        ++entry.rested;
        Tell(life);
        idling.PassUntilOther(*life.board);
    }

    // Small ones, and now and then the largest.
    uint32_t PayloadSize() const { return calls % 16 == 0 ? 4000U : 64U + calls % 200U; }

    const Life &life;
    ClientEntry &entry;
    Idling idling;
    int pipe = 0;
    uint32_t calls = 0;
};

} // namespace

int RunServer(const Life &life) {
    self = new Life(life);
    std::signal(SIGPIPE, SIG_IGN);
    const Trap trap(life.moment, life.nth, life.server);
    Idling idling(life.survivor);
    TarvoServerAttr attr;
    attr.openCallback = OnOpen;
    attr.callback = OnRequest;
    attr.selfName = self->server.c_str();
    const int result = TarvoCreateServer(&attr);
    if (result != 0) {
        return 1;
    }
    while (life.board->Get() != Command::Finish) {
        life.board->AwaitOther(Command::Run);
        if (life.board->Get() == Command::Rest) {
            ++life.board->serverRested;
            Tell(life);
            idling.PassUntilOther(*life.board);
        }
    }
    TarvoCfgFinishServer();
    return 0;
}

int RunClient(const Life &life) {
    std::signal(SIGPIPE, SIG_IGN);
    const Trap trap(life.moment, life.nth, life.server);
    return Client(life).Run();
}

} // namespace storm
