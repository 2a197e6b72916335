// One server and its clients, killed and restarted by a process of their own.
#ifndef TARVO_STORM_GROUP_H
#define TARVO_STORM_GROUP_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "storm/Board.h"
#include "storm/Roles.h"
#include "support/Process.h"

namespace storm {

struct Plan {
    unsigned kills = 0;
    unsigned clients = 3;
    unsigned index = 0;
    uint64_t seed = 0;
    int wedgedAfterMs = 10000; // a process without an answer for so long is wedged
};

constexpr std::size_t MAX_SAMPLES = 40000;

// What a group has found, in memory that its process shares with the one that sums up.
struct Findings {
    std::atomic<unsigned> kills{0};
    std::atomic<unsigned> at[static_cast<std::size_t>(Moment::Count)] = {};
    std::atomic<unsigned> restarts{0};
    std::atomic<unsigned> cutShort{0}; // restarts whose process, or whose peer, was killed again before its answer
    std::atomic<unsigned> wedged{0};
    std::atomic<unsigned> failures{0}; // everything else that is wrong; each is reported as it is found
    std::atomic<uint64_t> answers{0};
    std::atomic<std::size_t> samples{0};
    int32_t restartToAnswerUs[MAX_SAMPLES] = {};
};

// Kills, restarts and watches. Owns: the processes. Threads: one. Locks: none. Ends: kills what still runs.
class Group {
public:
    Group(const Plan &what, Findings &found);
    ~Group();
    Group(const Group &) = delete;
    Group &operator=(const Group &) = delete;

    // All of it: warm up, storm, rest, orderly end, the next start.
    void Run();

private:
    struct Member {
        Life life;
        std::unique_ptr<tarvo_test::ChildProcess> process;
        int64_t startedAt = 0;
        int64_t killAt = 0;       // 0: not by us
        bool afterAnswer = false; // the time to kill it is set by its first answer
        bool measured = true;     // answered since the last restart on either side
        uint64_t answersBefore = 0;
    };
    // What a survivor holds.
    struct Holdings {
        std::size_t descriptors = 0;
        std::size_t threads = 0;
    };

    void Start(Member &member, bool doomed);
    void Doom(Member &member);
    void Storm();
    void KillWhatIsDue();
    void KillAll();
    void WaitForNews(int64_t until);
    void Bury(Member &member, bool doomed);
    void TakeNote();
    void Measure(Member &client);
    bool AwaitAnswers();
    bool AwaitRest();
    void Rest();
    Holdings CountOf(const Member &member) const;
    void CompareHoldings(const Holdings &before);
    void Finish();
    void ExpectNoFilesOfThisLife();
    void ReportWedged(Member &client);
    void Fail(const std::string &what);
    int64_t Deadline() const;

    Member &Server() { return members.front(); }
    Member &Survivor();
    unsigned Uniform(unsigned low, unsigned high);

    const Plan plan;
    Findings &findings;
    std::mt19937_64 random;
    Shared<Board> board;
    int progress;
    std::vector<Member> members; // the server, then the clients
    bool stormy = false;
};

} // namespace storm

#endif // TARVO_STORM_GROUP_H
