#include "support/Names.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tarvo_test {
namespace {

TEST(NamesTest, FilesOfThisProcessAreFoundWhoeverHasTheOtherName) {
    // The last one's other end has a name that holds this process's tag.
    std::vector<std::string> own = {NameTag() + "server", NameTag() + "a__to__b", "b__to__" + NameTag() + "a",
                                    "b" + NameTag() + "c__to__" + NameTag() + "a"};
    const std::string strangers = "b" + NameTag() + "c__to__d";
    for (const std::string &name : own) {
        EXPECT_EQ(mkfifo((FifoDirectory() + name).c_str(), 0600), 0) << name;
    }
    EXPECT_EQ(mkfifo((FifoDirectory() + strangers).c_str(), 0600), 0);
    std::vector<std::string> found = OwnFifoFiles();
    std::sort(found.begin(), found.end());
    std::sort(own.begin(), own.end());
    EXPECT_EQ(found, own);
    RemoveOwnFifoFiles();
    EXPECT_TRUE(OwnFifoFiles().empty());
    unlink((FifoDirectory() + strangers).c_str());
}

} // namespace
} // namespace tarvo_test
