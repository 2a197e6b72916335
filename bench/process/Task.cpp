#include "Task.h"

#include <cstdio>
#include <stdexcept>
#include <thread>

#include "Budget.h"
#include "OneWayCount.h"
#include "Time.h"

namespace bench {

namespace {

constexpr std::size_t CONNECTIONS_AT_ONCE = 50;
constexpr std::size_t MESSAGES_BETWEEN_LOOKS = 32;

void Require(bool succeeded) {
    if (!succeeded) {
        throw std::runtime_error("a call failed");
    }
}

// Samples whose memory has been touched.
std::vector<int64_t> RoomFor(std::size_t samples) {
    std::vector<int64_t> room(samples);
    room.clear();
    return room;
}

} // namespace

Session::Session(const Contestant &owner, const Place &where, const Task &work, std::vector<pid_t> serverProcesses)
    : contestant(owner), place(where), task(work), servers(std::move(serverProcesses)), payload(MAX_PAYLOAD, '\x5A') {
    payload[0] = task.kind == "oneway" ? OP_ONE_WAY : OP_ECHO;
    if (task.kind == "oneway") {
        OneWayCount::Open(place.endpoint);
    }
}

void Session::Connect() {
    const bool later = task.kind == "connect" || task.kind == "opens";
    for (std::size_t i = 0; !later && i < task.pipes; ++i) {
        Place one = place;
        one.self += "p" + std::to_string(i);
        clients.push_back(contestant.connect(one));
    }
}

void Session::WarmUp() {
    if (task.kind == "oneway" || task.kind == "window") {
        RunExactly(task.warmUp);
    } else if (!clients.empty()) {
        const Task timed = task;
        task.kind = "call";
        RunExactly(task.warmUp * place.lanes);
        task = timed;
    }
}

Outcome Session::Run(int64_t begin) {
    Outcome outcome;
    outcome.begin = begin;
    const std::string &kind = task.kind;
    kind == "oneway"    ? OneWay(outcome)
    : kind == "connect" ? Connects(outcome)
    : kind == "opens"   ? ConnectOnce(outcome)
    : kind == "window"  ? Window(outcome)
    : kind == "open"    ? Open(outcome)
                        : Calls(outcome);
    return outcome;
}

Outcome Session::RunExactly(std::size_t count) {
    const std::size_t before = task.count;
    task.count = count;
    Outcome outcome = Run(0);
    task.count = before;
    return outcome;
}

void Session::Begin(Outcome &outcome) const {
    if (outcome.begin > Now()) {
        SleepUntil(outcome.begin);
    }
    outcome.serverTime = -ProcessorTime(servers);
    outcome.ownTime = -Nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    outcome.begin = Now();
}

void Session::End(Outcome &outcome) const {
    outcome.end = Now();
    outcome.ownTime += Nanoseconds(CLOCK_PROCESS_CPUTIME_ID);
    outcome.serverTime += ProcessorTime(servers);
}

void Session::CallOnce(Client &client, std::size_t lane) {
    uint64_t word = 0;
    Require(client.Call(lane, payload.data(), task.size, word));
    Require(word == FirstWord(payload.data(), task.size));
}

void Session::Calls(Outcome &outcome) {
    if (place.lanes > 1 && (contestant.abilities & LANES) != 0) {
        CallFromLanes(outcome);
        return;
    }
    outcome.latencies = RoomFor(Budget::Room(task, 1));
    Begin(outcome);
    Budget budget(task, 1, outcome.begin);
    CallFrom(0, budget, outcome.latencies);
    End(outcome);
    outcome.operations = outcome.latencies.size();
}

void Session::CallFrom(std::size_t lane, Budget &budget, std::vector<int64_t> &latencies) {
    Budget::Part part(budget);
    Client &client = *clients.back();
    int64_t now = Now();
    while (part.GoesOn(latencies.size(), now)) {
        const int64_t start = now;
        CallOnce(client, lane);
        now = Now();
        latencies.push_back(now - start);
    }
}

// The run begins when every thread has made a call: contestants may set a thread up then.
void Session::CallFromLanes(Outcome &outcome) {
    std::vector<std::vector<int64_t>> perLane(place.lanes);
    std::atomic<std::size_t> prepared{0};
    std::atomic<Budget *> go{nullptr};
    std::vector<std::thread> threads;
    const std::size_t room = Budget::Room(task, place.lanes);
    for (std::size_t lane = 0; lane < place.lanes; ++lane) {
        threads.emplace_back([&, lane] {
            perLane[lane] = RoomFor(room);
            CallOnce(*clients.back(), lane);
            ++prepared;
            while (go == nullptr) {
                std::this_thread::yield();
            }
            CallFrom(lane, *go, perLane[lane]);
        });
    }
    while (prepared < place.lanes) {
        std::this_thread::yield();
    }
    Begin(outcome);
    Budget budget(task, place.lanes, outcome.begin);
    go = &budget;
    for (std::thread &thread : threads) {
        thread.join();
    }
    End(outcome);
    for (const std::vector<int64_t> &lane : perLane) {
        outcome.latencies.insert(outcome.latencies.end(), lane.begin(), lane.end());
    }
    outcome.operations = outcome.latencies.size();
}

// So many calls outstanding from one thread: each answer starts the next one.
void Session::Window(Outcome &outcome) {
    Client &client = *clients.back();
    outcome.latencies = RoomFor(Budget::Room(task, 1));
    std::vector<int64_t> started(task.window);
    std::vector<Answered> answers;
    const uint64_t expected = FirstWord(payload.data(), task.size);
    const auto start = [&](uint64_t token) {
        started[token] = Now();
        Require(client.Start(token, payload.data(), task.size));
    };
    Begin(outcome);
    Budget budget(task, 1, outcome.begin);
    Budget::Part part(budget);
    for (uint64_t token = 0; token < task.window; ++token) {
        start(token);
    }
    for (std::size_t outstanding = task.window; outstanding > 0; answers.clear()) {
        Require(client.Await(answers, NO_LIMIT));
        const int64_t now = Now();
        for (const Answered &answer : answers) {
            Require(answer.word == expected);
            outcome.latencies.push_back(now - started[answer.token]);
            if (part.GoesOn(outcome.latencies.size() + outstanding - 1, now)) {
                start(answer.token);
            } else {
                --outstanding;
            }
        }
    }
    End(outcome);
    outcome.operations = outcome.latencies.size();
}

// Ends when the server has counted every message. A window of unhandled ones, since some contestants drop what does not
// fit; half of it is free again before the sender goes on.
void Session::OneWay(Outcome &outcome) {
    Client &client = *clients.back();
    const uint64_t before = OneWayCount::Read();
    std::size_t sent = 0;
    Begin(outcome);
    Budget budget(task, 1, outcome.begin);
    Budget::Part part(budget);
    while (sent % MESSAGES_BETWEEN_LOOKS != 0 || part.GoesOn(sent, Now())) {
        Require(client.Send(payload.data(), task.size));
        ++sent;
        if (before + sent - OneWayCount::Read() >= task.window) {
            Require(client.Flush());
            OneWayCount::Await(before + sent - task.window / 2);
        }
    }
    Require(client.Flush());
    OneWayCount::Await(before + sent);
    End(outcome);
    outcome.operations = sent;
}

// Connect and first call; what closing takes is not in the figures. Some stay open at the same time.
void Session::Connects(Outcome &outcome) {
    Budget budget(task, 1, Now());
    Budget::Part part(budget);
    Place one = place;
    one.lanes = 1;
    outcome.begin = Now();
    while (part.GoesOn(outcome.operations, Now())) {
        Outcome batch;
        Begin(batch);
        for (std::size_t i = 0; i < CONNECTIONS_AT_ONCE; ++i) {
            one.self = place.self + "c" + std::to_string(outcome.operations++);
            const int64_t start = Now();
            clients.push_back(contestant.connect(one));
            CallOnce(*clients.back(), 0);
            outcome.latencies.push_back(Now() - start);
        }
        End(batch);
        outcome.ownTime += batch.ownTime;
        outcome.serverTime += batch.serverTime;
        if (task.count == 0) { // counted ones stay: who counts does not want what closing takes either
            clients.clear();
        }
    }
    outcome.end = Now();
}

// One connect and first call, at the same moment as those of many other processes; a failure counts.
void Session::ConnectOnce(Outcome &outcome) {
    Begin(outcome);
    try {
        clients.push_back(contestant.connect(place));
        CallOnce(*clients.back(), 0);
    } catch (const std::runtime_error &error) {
        std::fprintf(stderr, "%s: %s\n", place.self.c_str(), error.what());
        outcome.failures = 1;
    }
    End(outcome);
    outcome.operations = 1;
    outcome.latencies.push_back(outcome.end - outcome.begin);
}

} // namespace bench
