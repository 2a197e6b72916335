// Names that one bridge of a machine keeps from the others.
#include "program/NameLocks.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/Names.h"

using tarvo_bridge::NameLocks;

namespace tarvo_test {
namespace {

constexpr uid_t NOBODY = 65534;

class NameLocksTest : public testing::Test {
protected:
    NameLocksTest() : folder("/tmp/" + UniqueName("locks")) {}
    ~NameLocksTest() override { std::filesystem::remove_all(folder); }

    const std::string folder;
};

// For as long as it lives this process is not root, who may write to everything.
class Unprivileged {
public:
    Unprivileged() { root = geteuid() == 0 && seteuid(NOBODY) == 0; }
    ~Unprivileged() {
        if (root && seteuid(0) != 0) {
            ADD_FAILURE() << "seteuid";
        }
    }

private:
    bool root = false;
};

TEST_F(NameLocksTest, NameThatIsTakenTellsByWhom) {
    NameLocks first;
    NameLocks second;
    EXPECT_EQ(first.Take(folder, "camera", "imported"), "");
    EXPECT_EQ(second.Take(folder, "camera", "exported"),
              "another bridge of this machine has 'camera': it is imported by process " + std::to_string(getpid()));
    EXPECT_EQ(second.Take(folder, "gps", "exported"), "");
}

// A bridge that was started by hand, and the service, have different users.
TEST_F(NameLocksTest, FileThatAnotherUserHasLeftBehindKeepsNobodyOut) {
    { EXPECT_EQ(NameLocks().Take(folder, "camera", "imported"), ""); }
    ASSERT_EQ(chmod((folder + "/camera.name").c_str(), 0444), 0);
    const Unprivileged here;
    NameLocks locks;
    EXPECT_EQ(locks.Take(folder, "camera", "imported"), "");
    EXPECT_NE(NameLocks().Take(folder, "camera", "exported"), "") << "it is locked all the same";
}

TEST_F(NameLocksTest, NameThatAnotherUserHasIsTaken) {
    NameLocks first;
    EXPECT_EQ(first.Take(folder, "camera", "imported"), "");
    ASSERT_EQ(chmod((folder + "/camera.name").c_str(), 0444), 0);
    const Unprivileged here;
    EXPECT_EQ(NameLocks().Take(folder, "camera", "exported"),
              "another bridge of this machine has 'camera': it is imported by process " + std::to_string(getpid()));
}

} // namespace
} // namespace tarvo_test
