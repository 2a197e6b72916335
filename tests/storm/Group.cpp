#include "storm/Group.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>

#include "support/Eventually.h"
#include "support/Names.h"

namespace storm {

namespace {

constexpr int64_t MS = 1000000;
// A process whose moment does not come is killed at a random time after this.
constexpr unsigned PATIENCE_MS = 250;
constexpr int END_LIMIT_MS = 20000;

std::size_t EntriesOf(pid_t pid, const char *what) {
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/" + what, error);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

} // namespace

Group::Group(const Plan &what, Findings &found)
    : plan(what), findings(found), random(what.seed * 1000003 + what.index), progress(eventfd(0, EFD_CLOEXEC)) {
    members.resize(plan.clients + 1);
    const std::string tag = tarvo_test::NameTag();
    for (std::size_t i = 0; i < members.size(); ++i) {
        Life &life = members[i].life;
        life.board = &*board;
        life.progress = progress;
        life.server = tag + "s" + std::to_string(plan.index) + "x";
        life.client = i == 0 ? "" : tag + "c" + std::to_string(plan.index) + "x" + std::to_string(i);
        life.index = i == 0 ? 0 : i - 1;
    }
    Survivor().life.survivor = true;
}

Group::~Group() {
    members.clear();
    close(progress);
}

// A server whose clients are killed, or a client that loses its server again and again.
Group::Member &Group::Survivor() { return plan.index % 2 == 0 ? members.front() : members.back(); }

unsigned Group::Uniform(unsigned low, unsigned high) {
    return std::uniform_int_distribution<unsigned>(low, high)(random);
}

void Group::Run() {
    for (Member &member : members) {
        Start(member, false);
    }
    if (!AwaitAnswers()) {
        return;
    }
    Rest();
    const Holdings before = CountOf(Survivor());
    board->Set(Command::Run);
    Storm();
    if (!AwaitAnswers()) {
        return;
    }
    Rest();
    CompareHoldings(before);
    Finish();
    // The next start: of the same names, and without a kill.
    board->Set(Command::Run);
    for (Member &member : members) {
        member.life.survivor = false;
        Start(member, false);
    }
    if (AwaitAnswers()) {
        Finish();
    }
}

// ---- Lives and deaths ----

void Group::Start(Member &member, bool doomed) {
    Life &life = member.life;
    ++life.generation;
    life.moment = Moment::Never;
    member.killAt = 0;
    member.afterAnswer = false;
    if (doomed && !life.survivor) {
        Doom(member);
    }
    member.startedAt = Now();
    member.process = std::make_unique<tarvo_test::ChildProcess>(
        [life](tarvo_test::Channel &) { return life.client.empty() ? RunServer(life) : RunClient(life); });
    member.measured = false;
    if (life.client.empty()) {
        // Every client has to find the new server.
        for (Member &other : members) {
            other.measured = false;
        }
    }
}

void Group::Doom(Member &member) {
    Life &life = member.life;
    const int64_t now = Now();
    const std::vector<Moment> &moments = MomentsOf(life.client.empty() ? Role::Server : Role::Client);
    switch (Uniform(0, 3)) {
    case 0: // whatever it does just then, its start included
        member.killAt = now + Uniform(0, 40000) * (MS / 1000);
        break;
    case 1: // at work
        member.afterAnswer = true;
        member.killAt = now + PATIENCE_MS * 4 * MS;
        break;
    default:
        life.moment = moments[Uniform(0, static_cast<unsigned>(moments.size()) - 1)];
        life.nth = Uniform(1, 3);
        member.killAt = now + Uniform(PATIENCE_MS, 2 * PATIENCE_MS) * MS;
        break;
    }
}

void Group::Storm() {
    constexpr unsigned ROUNDS_PER_POWER_CUT = 200; // which takes all at once
    stormy = true;
    for (Member &member : members) {
        if (!member.life.survivor) {
            Doom(member);
            member.life.moment = Moment::Never; // it is too late to set the trap
        }
    }
    while (findings.kills < plan.kills && findings.wedged == 0) {
        KillWhatIsDue();
        if (Uniform(1, ROUNDS_PER_POWER_CUT) == 1) {
            KillAll();
        }
        WaitForNews(Deadline());
    }
    // The last ones live on, without traps.
    stormy = false;
    KillAll();
    for (Member &member : members) {
        if (member.process->EndsWithin(0)) {
            Bury(member, false);
        }
    }
}

int64_t Group::Deadline() const {
    int64_t next = Now() + 100 * MS;
    for (const Member &member : members) {
        if (member.killAt > 0) {
            next = std::min(next, member.killAt);
        }
    }
    return next;
}

void Group::KillWhatIsDue() {
    const int64_t now = Now();
    for (Member &member : members) {
        if (member.killAt > 0 && member.killAt <= now) {
            member.process->Kill();
            member.life.moment = Moment::Never;
            member.killAt = 0;
        }
    }
}

void Group::KillAll() {
    for (Member &member : members) {
        if (!member.life.survivor) {
            member.process->Kill();
            member.life.moment = Moment::Never;
        }
    }
    if (!stormy) {
        for (Member &member : members) {
            if (!member.life.survivor) {
                member.process->EndsWithin(END_LIMIT_MS);
            }
        }
    }
}

// Takes what has happened up to now, and waits until `until` when nothing has.
void Group::WaitForNews(int64_t until) {
    std::vector<pollfd> events{{progress, POLLIN, 0}};
    for (const Member &member : members) {
        events.push_back({member.process->EndDescriptor(), POLLIN, 0});
    }
    const int64_t left = std::max<int64_t>(0, until - Now());
    const timespec limit{left / 1000000000, left % 1000000000};
    if (ppoll(events.data(), events.size(), &limit, nullptr) > 0 && events[0].revents != 0) {
        uint64_t count = 0;
        static_cast<void>(!read(progress, &count, sizeof(count)));
    }
    TakeNote();
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (events[i + 1].revents != 0) {
            Bury(members[i], stormy);
        }
    }
    for (std::size_t i = 1; i < members.size(); ++i) {
        const int64_t since = std::max(members[i].startedAt, Server().startedAt);
        if (!members[i].measured && Now() - since > plan.wedgedAfterMs * MS) {
            ReportWedged(members[i]);
        }
    }
}

// Restarts at once what has been killed.
void Group::Bury(Member &member, bool doomed) {
    const int code = member.process->Wait();
    if (code != 128 + SIGKILL) {
        Fail((member.life.client.empty() ? "the server" : "client " + member.life.client) + " ended with " +
             std::to_string(code));
    }
    ++findings.kills;
    ++findings.restarts;
    ++findings.at[static_cast<std::size_t>(member.life.moment)];
    if (!member.measured) {
        ++findings.cutShort;
    }
    Start(member, doomed);
}

// ---- Answers ----

void Group::TakeNote() {
    for (std::size_t i = 1; i < members.size(); ++i) {
        Measure(members[i]);
    }
    Member &server = Server();
    server.measured = std::any_of(members.begin() + 1, members.end(), [](const Member &one) { return one.measured; });
    if (server.measured && server.afterAnswer) {
        server.afterAnswer = false;
        server.killAt = Now() + Uniform(0, 60000) * (MS / 1000);
    }
}

void Group::Measure(Member &client) {
    const ClientEntry &entry = board->clients[client.life.index];
    const uint64_t both = uint64_t{client.life.generation} << 32 | Server().life.generation;
    if (client.measured || entry.answered.load() != both) {
        return;
    }
    client.measured = true;
    const int64_t took = entry.answeredAt.load() - std::max(client.startedAt, Server().startedAt);
    if (stormy && findings.samples < MAX_SAMPLES) {
        findings.restartToAnswerUs[findings.samples++] = static_cast<int32_t>(took / 1000);
    }
    if (client.afterAnswer) {
        client.afterAnswer = false;
        client.killAt = Now() + Uniform(0, 60000) * (MS / 1000);
    }
}

bool Group::AwaitAnswers() {
    const auto all = [this] {
        return std::all_of(members.begin() + 1, members.end(), [](const Member &one) { return one.measured; });
    };
    while (!all() && findings.wedged == 0) {
        WaitForNews(Now() + 100 * MS);
    }
    return all();
}

void Group::ReportWedged(Member &client) {
    ++findings.wedged;
    const ClientEntry &entry = board->clients[client.life.index];
    std::fprintf(
        stderr,
        "WEDGED: client %s (process %d, life %u) has no answer from the server (process %d, life %u); its last "
        "was in life %u from life %u. The log of both follows.\n",
        client.life.client.c_str(), client.process->Pid(), client.life.generation, Server().process->Pid(),
        Server().life.generation, static_cast<unsigned>(entry.answered >> 32), static_cast<unsigned>(entry.answered));
    // Each prints its last log lines and aborts.
    for (Member *member : {&client, &Server()}) {
        member->process->Kill(SIGALRM);
        member->process->EndsWithin(END_LIMIT_MS);
    }
}

void Group::Fail(const std::string &what) {
    ++findings.failures;
    std::fprintf(stderr, "FAILED: group %u: %s\n", plan.index, what.c_str());
}

// ---- Rest and end ----

bool Group::AwaitRest() {
    const bool server = board->serverRested > 0;
    return server && std::all_of(members.begin() + 1, members.end(),
                                 [this](const Member &one) { return board->clients[one.life.index].rested > 0; });
}

// Has all processes pause, and idle threads end.
void Group::Rest() {
    board->serverRested = 0;
    for (ClientEntry &entry : board->clients) {
        entry.rested = 0;
    }
    board->Set(Command::Rest);
    if (!tarvo_test::Eventually([this] { return AwaitRest(); }, std::chrono::milliseconds(END_LIMIT_MS))) {
        Fail("some process does not come to rest");
    }
}

Group::Holdings Group::CountOf(const Member &member) const {
    return {EntriesOf(member.process->Pid(), "fd"), EntriesOf(member.process->Pid(), "task")};
}

void Group::CompareHoldings(const Holdings &before) {
    Holdings now;
    const auto same = [&] {
        now = CountOf(Survivor());
        return now.descriptors == before.descriptors && now.threads <= before.threads;
    };
    // A pipe to a client that died with its connect packet just written is given up after two seconds.
    if (!tarvo_test::Eventually(same, std::chrono::milliseconds(END_LIMIT_MS))) {
        Fail(std::string(Survivor().life.client.empty() ? "the surviving server" : "the surviving client") + " had " +
             std::to_string(before.descriptors) + " descriptors and " + std::to_string(before.threads) +
             " threads, and has " + std::to_string(now.descriptors) + " and " + std::to_string(now.threads));
    }
}

void Group::Finish() {
    board->Set(Command::Finish);
    // The clients go first, so that the server removes the files of their pipes as in life.
    for (auto member = members.rbegin(); member != members.rend(); ++member) {
        if (!member->process->EndsWithin(END_LIMIT_MS)) {
            ++findings.wedged;
            std::fprintf(stderr, "WEDGED: process %d does not end. Its log follows.\n", member->process->Pid());
            member->process->Kill(SIGALRM);
        }
        const int code = member->process->Wait();
        if (code != 0) {
            Fail("a process that was told to finish ended with " + std::to_string(code));
        }
    }
    ExpectNoFilesOfThisLife();
    for (ClientEntry &entry : board->clients) {
        const uint64_t wrong = entry.wrong.exchange(0);
        if (wrong > 0) {
            Fail(std::to_string(wrong) + " wrong answers");
        }
        findings.answers += entry.answers.exchange(0);
    }
}

// Of those that ended in the orderly way. Files of two killed ends are counted when all is over.
void Group::ExpectNoFilesOfThisLife() {
    for (auto member = members.begin() + 1; member != members.end(); ++member) {
        const std::string client = member->life.client + "_" + std::to_string(member->process->Pid());
        for (const std::string &file :
             {tarvo_test::FifoPath(client, member->life.server), tarvo_test::FifoPath(member->life.server, client)}) {
            if (access(file.c_str(), F_OK) == 0) {
                Fail("left behind by an orderly end: " + file);
            }
        }
    }
}

} // namespace storm
