#include "api/tarvo_check.h"

#include <gmock/gmock-more-matchers.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "api/EnvManager.h"
#include "support/SyslogCapture.h"

using namespace tarvo_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

TEST(BlackList, RefusesEveryEntryWhereverItStands) {
    for (const std::string entry : {"|", ";", ">", "<", ">>", "`", "||", "&&", "&", "(", ")", "$", ".."}) {
        EXPECT_TRUE(BlackListCheck(entry.c_str())) << entry;
        EXPECT_TRUE(BlackListCheck((entry + "name").c_str())) << entry;
        EXPECT_TRUE(BlackListCheck(("na" + entry + "me").c_str())) << entry;
        EXPECT_TRUE(BlackListCheck(("name" + entry).c_str())) << entry;
    }
}

TEST(BlackList, LetsEverythingElsePass) {
    for (const char *name : {"", "name", "a.b.c", ".", "/", "a/b", "a b", "'a'", "\"a\"", "a-b_c", "a\\b", "a*?", "{a}",
                             "[a]", "#~!%^=+,:@", "\n", "\xc3\xa4"}) {
        EXPECT_FALSE(BlackListCheck(name)) << name;
    }
}

class InputCheck : public testing::Test {
protected:
    InputCheck() { SetProcessName("procname"); }

    static void SetProcessName(const std::string &name) {
        MutexLock lock(EnvManager::Instance());
        EnvManager::SetProcName(name);
    }

    // Every line must be an error of this file, or of the name check below it.
    std::vector<std::string> Messages() {
        for (const LogLine &line : log.Lines()) {
            EXPECT_EQ(LOG_ERR, line.level) << line.text;
            EXPECT_EQ("TARVO", line.label) << line.text;
            EXPECT_EQ(line.message.rfind("Intput", 0) == 0 ? "tarvo_check" : "velm_check", line.file) << line.text;
        }
        std::vector<std::string> messages = log.Messages();
        log.Clear();
        return messages;
    }

    // The lines of a check that has refused something.
    void ExpectRefused(int result, const std::vector<std::string> &lines) {
        EXPECT_EQ(-EINVAL, result);
        EXPECT_EQ(lines, Messages());
    }

    const std::string empty = "Length of process name is invalid, value=0, range(0, 100]";
    const std::string tooLong = "Length of process name is invalid, value=101, range(0, 100]";
    SyslogCapture log;
};

class SelfNameAndPriority : public InputCheck {};

TEST_F(SelfNameAndPriority, ValidOnesPass) {
    for (const int priority : {0, 1, 2}) {
        EXPECT_EQ(0, CheckInputSelfNameAndPriority("name", static_cast<TarvoPriority>(priority)));
    }
    EXPECT_EQ(0, CheckInputSelfNameAndPriority("x", TARVO_PRIORITY_NORMAL));
    EXPECT_EQ(0, CheckInputSelfNameAndPriority(std::string(100, 'x').c_str(), TARVO_PRIORITY_NORMAL));
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(SelfNameAndPriority, NameOfBadLengthIsRefused) {
    ExpectRefused(CheckInputSelfNameAndPriority("", TARVO_PRIORITY_NORMAL), {empty, "Intput selfName is not valid."});
    for (const std::size_t length : {101U, 102U, 5000U}) {
        ExpectRefused(CheckInputSelfNameAndPriority(std::string(length, 'x').c_str(), TARVO_PRIORITY_NORMAL),
                      {tooLong, "Intput selfName is not valid."});
    }
}

TEST_F(SelfNameAndPriority, BlackListedNameIsRefused) {
    ExpectRefused(CheckInputSelfNameAndPriority("a$b", TARVO_PRIORITY_NORMAL), {"Intput selfName=a$b is not valid."});
}

TEST_F(SelfNameAndPriority, NullStandsForTheProcessName) {
    EXPECT_EQ(0, CheckInputSelfNameAndPriority(nullptr, TARVO_PRIORITY_NORMAL));
    EXPECT_THAT(Messages(), IsEmpty());

    SetProcessName("");
    EXPECT_EQ(-EINVAL, CheckInputSelfNameAndPriority(nullptr, TARVO_PRIORITY_NORMAL));
    EXPECT_EQ(0, CheckInputSelfNameAndPriority("name", TARVO_PRIORITY_NORMAL));
    EXPECT_THAT(Messages(), ElementsAre(empty, "Intput selfName is not valid."));

    SetProcessName("a|b");
    ExpectRefused(CheckInputSelfNameAndPriority(nullptr, TARVO_PRIORITY_NORMAL),
                  {"Intput selfName=(null) is not valid."});
}

TEST_F(SelfNameAndPriority, PriorityOutOfRangeIsRefused) {
    for (const int priority : {3, 100, -1, INT32_MIN}) {
        ExpectRefused(CheckInputSelfNameAndPriority("name", static_cast<TarvoPriority>(priority)),
                      {"Intput attr priority is not valid, prio=" + std::to_string(priority) + "."});
    }
}

class PipeAttr : public InputCheck {
protected:
    PipeAttr() { attr.targetName = "target"; }

    TarvoAttr attr;
};

TEST_F(PipeAttr, DefaultsWithATargetPass) {
    EXPECT_EQ(0, CheckInputPipeAttr(attr));
    attr.mode = TARVO_MODE_SERVER;
    attr.priority = TARVO_PRIORITY_NONE;
    attr.selfName = "self";
    EXPECT_EQ(0, CheckInputPipeAttr(attr));
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(PipeAttr, NothingElseIsChecked) {
    attr.timeout = INT32_MIN;
    attr.gid = 12345;
    attr.targetPid = -77;
    attr.domain = static_cast<TarvoDomain>(99);
    attr.targetCon = "$(any)";
    EXPECT_EQ(0, CheckInputPipeAttr(attr));
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(PipeAttr, TargetIsRequired) {
    attr.targetName = nullptr;
    ExpectRefused(CheckInputPipeAttr(attr), {"Intput targetName is not valid."});
    attr.targetName = "";
    ExpectRefused(CheckInputPipeAttr(attr), {empty, "Intput targetName is not valid."});
}

TEST_F(PipeAttr, TargetHasUpToAHundredCharacters) {
    const std::string longest(100, 'x');
    attr.targetName = longest.c_str();
    EXPECT_EQ(0, CheckInputPipeAttr(attr));
    const std::string longer(101, 'x');
    attr.targetName = longer.c_str();
    ExpectRefused(CheckInputPipeAttr(attr), {tooLong, "Intput targetName is not valid."});
}

TEST_F(PipeAttr, BlackListedTargetIsRefused) {
    for (const std::string name : {"a..b", "a|b", "a$b", "(a)"}) {
        attr.targetName = name.c_str();
        ExpectRefused(CheckInputPipeAttr(attr), {"Intput targetName=" + name + " is not valid."});
    }
    attr.targetName = "a.b/c";
    EXPECT_EQ(0, CheckInputPipeAttr(attr));
}

TEST_F(PipeAttr, ModeOutOfRangeIsRefused) {
    for (const int mode : {2, -1, INT32_MAX}) {
        attr.mode = static_cast<TarvoMode>(mode);
        ExpectRefused(CheckInputPipeAttr(attr), {"Intput mode=" + std::to_string(mode) + " is not valid."});
    }
}

TEST_F(PipeAttr, OnlyTheFirstFailureIsReported) {
    attr.targetName = "a|b";
    attr.mode = static_cast<TarvoMode>(2);
    attr.selfName = "";
    attr.priority = static_cast<TarvoPriority>(3);
    ExpectRefused(CheckInputPipeAttr(attr), {"Intput targetName=a|b is not valid."});
    attr.targetName = "target";
    ExpectRefused(CheckInputPipeAttr(attr), {"Intput mode=2 is not valid."});
    attr.mode = TARVO_MODE_CLIENT;
    ExpectRefused(CheckInputPipeAttr(attr), {empty, "Intput selfName is not valid."});
    attr.selfName = "self";
    ExpectRefused(CheckInputPipeAttr(attr), {"Intput attr priority is not valid, prio=3."});
}

class ServerAttr : public InputCheck {};

TEST_F(ServerAttr, DefaultsPass) {
    TarvoServerAttr attr;
    EXPECT_EQ(0, CheckInputServerAttr(attr));
    attr.selfName = "server";
    attr.priority = TARVO_PRIORITY_URGENT;
    EXPECT_EQ(0, CheckInputServerAttr(attr));
    EXPECT_THAT(Messages(), IsEmpty());
}

TEST_F(ServerAttr, NameAndPriorityAreChecked) {
    TarvoServerAttr attr;
    attr.selfName = "a;b";
    EXPECT_EQ(-EINVAL, CheckInputServerAttr(attr));
    EXPECT_THAT(Messages(), ElementsAre("Intput selfName=a;b is not valid."));
    attr.selfName = "";
    ExpectRefused(CheckInputServerAttr(attr), {empty, "Intput selfName is not valid."});
    attr.selfName = nullptr;
    attr.priority = static_cast<TarvoPriority>(3);
    ExpectRefused(CheckInputServerAttr(attr), {"Intput attr priority is not valid, prio=3."});
}

} // namespace
