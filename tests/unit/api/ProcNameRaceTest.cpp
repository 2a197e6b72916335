// The process is named anew while other threads read its name: they see the old name or the new one, whole.
#include <atomic>
#include <thread>

#include "ApiFixture.h"
#include "api/EnvManager.h"
#include "diag/velm_syslog.h"
#include "support/Sanitized.h"

namespace tarvo_test {
namespace {

// Two names that differ in every character after the tag, as long as names may be, so that a mixture shows.
class Names {
public:
    Names() : one(NameTag() + std::string(LENGTH - NameTag().size(), 'a')), other(one) {
        for (std::size_t i = NameTag().size(); i < LENGTH; ++i) {
            other[i] = 'b';
        }
    }

    void GiveInTurn(int round) const { EXPECT_EQ(EnvManager::EnvInit(round % 2 == 0 ? one : other), 0); }
    bool IsOneOfThem(const std::string &name) const { return name == one || name == other; }
    bool IsOneOfThemIn(const std::string &text) const {
        return text.find(one) != std::string::npos || text.find(other) != std::string::npos;
    }

private:
    static constexpr std::size_t LENGTH = 100;

    std::string one;
    std::string other;
};

// Names the process for good: each test needs a process of its own.
class ProcNameRaceTest : public ApiTest {
protected:
    ProcNameRaceTest() { names.GiveInTurn(0); }

    // Runs `step` on two threads while the process is being named anew `rounds` times, and at least once on each.
    template <typename Step>
    void WhileBeingNamed(int rounds, Step step) const {
        std::atomic<bool> over{false};
        const auto run = [&] {
            do {
                step();
            } while (!over);
        };
        std::thread first(run);
        std::thread second(run);
        for (int round = 1; round <= rounds; ++round) {
            names.GiveInTurn(round);
        }
        over = true;
        first.join();
        second.join();
    }

    const Names names;
};

TEST_F(ProcNameRaceTest, ReadersSeeOneOfTheNames) {
    WhileBeingNamed(Rounds(20000, 2000), [this] {
        const std::string name = EnvManager::ProcName();
        if (!names.IsOneOfThem(name)) {
            ADD_FAILURE() << name;
        }
    });
}

TEST_F(ProcNameRaceTest, LogLinesCarryOneOfTheNames) {
    WhileBeingNamed(Rounds(5000, 500), [] { VelmSyslog(LOG_TYPE_TARVO, LOG_ERR, 1, "race", "said"); });
    EXPECT_GE(log.Lines().size(), 2U);
    for (const LogLine &line : log.Lines()) {
        if (!names.IsOneOfThem(line.process)) {
            ADD_FAILURE() << line.text;
        }
    }
}

TEST_F(ProcNameRaceTest, PipesAreNamedAfterOneOfThem) {
    WhileBeingNamed(Rounds(5000, 500), [this] {
        const std::string target = UniqueName("remote");
        TarvoAttr attr;
        attr.targetName = target.c_str();
        attr.mode = TARVO_MODE_SERVER;
        const int fd = TarvoOpen(&attr);
        EXPECT_GT(fd, 0);
        for (const std::string &file : OwnFifoFiles()) {
            if (!names.IsOneOfThemIn(file)) {
                ADD_FAILURE() << file;
            }
        }
        TarvoClosePipe(fd);
    });
}

// Whoever has read the name keeps what it has read.
TEST_F(ProcNameRaceTest, NameThatWasReadNeverChanges) {
    const char *const name = EnvManager::ProcName();
    const std::string before = name;
    names.GiveInTurn(1);
    EXPECT_EQ(name, before);
    EXPECT_NE(EnvManager::ProcName(), before);
    names.GiveInTurn(2);
    EXPECT_EQ(EnvManager::ProcName(), name) << "the same name again takes no more memory";
}

TEST_F(ProcNameRaceTest, AnyNumberOfNamesCanBeGiven) {
    for (int round = 0; round < 100; ++round) {
        const std::string name = "name" + std::to_string(round);
        EXPECT_EQ(EnvManager::EnvInit(name), 0);
        EXPECT_EQ(EnvManager::ProcName(), name);
    }
}

} // namespace
} // namespace tarvo_test
