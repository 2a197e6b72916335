// The bridge's command line and its file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bridge/Machines.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

struct Outcome {
    int status;
    std::string said;
};

Outcome RunBridge(std::vector<std::string> arguments) {
    BridgeProcess bridge(nullptr, std::move(arguments), true);
    const int status = bridge.Wait();
    return {status, bridge.Log()};
}

// A file for --config, until the test ends.
class BridgeOptionsTest : public testing::Test {
protected:
    BridgeOptionsTest() : path("/tmp/" + UniqueName("bridge") + ".conf") {}
    ~BridgeOptionsTest() override { std::remove(path.c_str()); }

    Outcome Check(const std::string &text, std::vector<std::string> more = {}) {
        std::ofstream(path) << text;
        more.insert(more.end(), {"--check", "--config", path});
        return RunBridge(more);
    }

    const std::string path;
};

TEST_F(BridgeOptionsTest, FileThatIsRightIsCalledRight) {
    const Outcome checked = Check("# What this machine shares\n"
                                  "machine = \"front\"\n"
                                  "export = [\"radar\", \"gps\"]\n"
                                  "import = [\"camera@rear as camera2\", \"lidar\"]\n"
                                  "lease = 3000\n"
                                  "interface = \"lo\"\n");
    EXPECT_EQ(checked.status, 0) << checked.said;
    EXPECT_EQ(checked.said, "exports 2, imports 2, machine 'front': all right\n");
}

TEST_F(BridgeOptionsTest, WhatTomlAllowsIsRight) {
    for (const char *const text :
         {"export = []\nimport = \"radar\"\n", "export = 'radar'", "export = [\n  \"radar\", # ahead\n  'gps',\n]\n",
          "\"export\" = \"\"\"radar\"\"\"\r\nlease = 3_000\r\n", "export = \"[radar, gps]\"\ntag = \"[\\u0061]\"\n",
          "export = [\"radar\"]\npeer = [\"10.0.0.7\", \"fd00::7\", \"rear\", \"3.rear-2.example\"]\n"}) {
        const Outcome checked = Check(text);
        EXPECT_EQ(checked.status, 0) << text << checked.said;
    }
}

TEST_F(BridgeOptionsTest, CommandLineGoesBeforeTheFile) {
    const Outcome checked = Check("machine = \"front\"\nexport = \"radar\"\n", {"--machine", "rear"});
    EXPECT_EQ(checked.said, "exports 1, imports 0, machine 'rear': all right\n");
}

TEST_F(BridgeOptionsTest, WhatAFileMayNotSayIsAnError) {
    struct Wrong {
        const char *text;
        const char *complaint;
    };
    const std::vector<Wrong> wrongs{
        {"exprot = \"radar\"\n", ".conf:1: 'exprot' is no option of a file"},
        {"export = \"radar\"\ncheck = true\n", ".conf:2: 'check' is no option of a file"},
        {"import = \"radar\"\nas = \"gps\"\n", ".conf:2: 'as' is no option of a file"},
        {"--export = \"radar\"\n", ".conf:1: '--export' is no option of a file"},
        {"export = \"radar\"\n[bridge]\ntag = \"a\"\n", ".conf:2: 'bridge' is no option of a file"},
        {"export = \"radar\n", ".conf:1: "},
        {"export = [\"radar\"\n", ".conf:1: "},
        {"export = [\"radar\", \"gps\"]]\n", ".conf:1: "},
        {"export = \"radar\" \"gps\"\n", ".conf:1: "},
        {"export = radar gps\n", ".conf:1: "},
        {"export = [radar, gps]\n", ".conf:1: "},
        {"export = \"radar\"\nexport = \"gps\"\n", ".conf:2: "},
        {"--export=\"radar\" gps\n", ".conf:1: "},
        {"export = \"radar\"\ntag =\n", ".conf:2: "},
        {"export = \"radar\"\ntag = \"\xff\"\n", ".conf:2: "},
        {"export = \"radar\"\nlease = \"3000\"\n", ".conf:2: 'lease' takes a whole number"},
        {"export = \"radar\"\ndomain = 1.0\n", ".conf:2: 'domain' takes a whole number"},
        {"export = \"radar\"\nwindow = [64]\n", ".conf:2: 'window' takes a whole number"},
        {"export = \"radar\"\nsessions = true\n", ".conf:2: 'sessions' takes a whole number"},
        {"export = \"radar\"\ntag = 7\n", ".conf:2: 'tag' takes a string"},
        {"export = \"radar\"\ntag = \"a\\u0000b\"\n", ".conf:2: 'tag' takes a string"},
        {"export = \"radar\"\nmachine = [\"front\"]\n", ".conf:2: 'machine' takes a string"},
        {"export = [\n  \"radar\",\n  1]\n", ".conf:3: 'export' takes a string or an array of strings"},
        {"export = [[\"radar\"]]\n", "'export' takes a string or an array of strings"},
        {"[export]\nname = \"radar\"\n", "'export' takes a string or an array of strings"},
        {"export.name = \"radar\"\n", "'export' takes a string or an array of strings"},
        {"import = \"radar\"\npeer = \"not an address\"\n", "'not an address' is no peer"},
        {"export = \"radar\"\nlease = 10\n", "lease"},
        {"export = \"radar\"\nlease = soon\n", ".conf:2: "},
        {"export = \"radar\"\nwindow = 0\n", "window"},
        {"export = [\"radar\", \"radar\"]\n", "'radar' is exported twice"},
        {"export = \"radar\"\nimport = \"radar\"\n", "a bridge does not export what it imports"},
        {"export = \"radar\"\nimport = \"camera as radar\"\n", "a bridge does not export what it imports"},
        {"import = [\"camera@a\", \"camera@b\"]\n", "'camera' is imported twice"},
        {"import = \"@rear\"\n", "is no import"},
        {"import = \"camera@\"\n", "is no import"},
        {"import = \"camera as \"\n", "is no import"},
        {"export = \"a|b\"\n", "'a|b' cannot be exported"},
        {"export = \"a/b\"\n", "'a/b' cannot be exported"},
        {"export = \"a\tb\"\n", "cannot be exported"},
        {"import = \"camera as a\tb\"\n", "cannot be imported"},
        {"import = \"camera@a/b\"\n", "'a/b' is no name for a machine"},
        {"import = \"camera@12345678901234567890123456789012345678901\"\n", "is no name for a machine"},
        {"export = \"radar\"\nmachine = \"a;b\"\n", "'a;b' is no name for a machine"},
        {"export = \"radar\"\ninterface = \"nowhere0\"\n", "there is no network interface 'nowhere0'"},
        {"export = \"radar\"\nsecurity = \"/nonexistent\"\n", "'/nonexistent/key.pem' cannot be read"},
        {"export = \"radar\"\ndds-config = \"/nonexistent\"\n", "'/nonexistent' cannot be read"},
        {"export = \"radar\"\nlog = \"loud\"\n", "log"},
        {"", "there is nothing to do"},
    };
    for (const Wrong &wrong : wrongs) {
        const Outcome checked = Check(wrong.text);
        EXPECT_EQ(checked.status, 2) << wrong.text;
        EXPECT_NE(checked.said.find(wrong.complaint), std::string::npos) << wrong.text << checked.said;
    }
}

TEST_F(BridgeOptionsTest, PeerIsAnAddressOrAHost) {
    for (const char *const right :
         {"10.0.0.7", "fd00::7", "::ffff:10.0.0.7", "rear", "rear-2.example", "3rear", "7.a"}) {
        const Outcome checked = RunBridge({"--check", "--import", "radar", "--peer", right});
        EXPECT_EQ(checked.status, 0) << right << checked.said;
    }
    const std::string tooLong(254, 'a');
    for (const char *const wrong : {"", "not an address", "256.1.1.1", "10.0.0", "10", "10.0.0.7:7410", "fd00::7::1",
                                    "-rear", "rear-", "a..b", "a.-b", "rear_2", "rear/2", ".", tooLong.c_str()}) {
        const Outcome checked = RunBridge({"--check", "--import", "radar", "--peer", wrong});
        EXPECT_EQ(checked.status, 2) << wrong;
        EXPECT_NE(checked.said.find("'" + std::string(wrong) + "' is no peer: an IPv4 or IPv6 address or the name"),
                  std::string::npos)
            << checked.said;
    }
}

TEST_F(BridgeOptionsTest, CheckHasTheDdsReadItsFile) {
    const auto check = [this](const std::string &text) {
        std::ofstream(path) << text;
        return RunBridge({"--check", "--export", "radar", "--dds-config", path});
    };
    const std::string begin = "<CycloneDDS><Domain Id=\"any\"><Tracing><Verbosity>none</Verbosity></Tracing>";
    const Outcome right = check(begin + "</Domain></CycloneDDS>\n");
    EXPECT_EQ(right.status, 0) << right.said;
    for (const std::string &wrong : {begin, begin + "<Nonsense/></Domain></CycloneDDS>\n"}) {
        const Outcome checked = check(wrong);
        EXPECT_EQ(checked.status, 2) << wrong;
        EXPECT_NE(checked.said.find("the DDS refuses its configuration"), std::string::npos) << checked.said;
    }
    const Outcome folder = RunBridge({"--check", "--export", "radar", "--dds-config", "/tmp"});
    EXPECT_EQ(folder.status, 2);
    EXPECT_NE(folder.said.find("'/tmp' cannot be read"), std::string::npos) << folder.said;
}

// What the others could not be told of.
TEST_F(BridgeOptionsTest, MoreNamesThanAnAnnouncementHoldsAreAnError) {
    const auto list = [](const std::string &option, int count) {
        std::string text = option + " = [";
        for (int i = 0; i < count; ++i) {
            text += "\"" + option + std::to_string(i) + "\",";
        }
        text.back() = ']';
        return text + "\n";
    };
    EXPECT_EQ(Check(list("export", 1024) + list("import", 1024)).status, 0);
    const Outcome exports = Check(list("export", 1025));
    EXPECT_EQ(exports.status, 2);
    EXPECT_NE(exports.said.find("1025 names are exported: a bridge exports at most 1024"), std::string::npos)
        << exports.said;
    const Outcome all = Check(list("export", 1000) + list("import", 1049));
    EXPECT_EQ(all.status, 2);
    EXPECT_NE(all.said.find("2049 names are exported and imported: a bridge has at most 2048"), std::string::npos)
        << all.said;
}

TEST_F(BridgeOptionsTest, NameStandsBehindItsImport) {
    EXPECT_EQ(RunBridge({"--check", "--import", "camera@rear", "--as", "second", "--import", "camera"}).status, 0);
    EXPECT_EQ(RunBridge({"--check", "--import=camera@rear", "--as=second", "--import", "camera"}).status, 0);
    for (const std::vector<std::string> &wrong :
         std::vector<std::vector<std::string>>{{"--check", "--as", "second", "--import", "camera"},
                                               {"--check", "--import", "camera", "--as"},
                                               {"--check", "--export", "camera", "--as", "second"}}) {
        const Outcome checked = RunBridge(wrong);
        EXPECT_EQ(checked.status, 2);
        EXPECT_NE(checked.said.find("--as NAME stands directly behind the --import"), std::string::npos)
            << checked.said;
    }
}

TEST_F(BridgeOptionsTest, FileThatIsMissingIsAnError) {
    EXPECT_EQ(RunBridge({"--check", "--config", "/nonexistent"}).status, 2);
}

TEST_F(BridgeOptionsTest, HelpTellsOfEachOption) {
    const Outcome help = RunBridge({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const char *const option : {"--export NAME", "--import RULE", "--as NAME", "--config FILE", "--machine",
                                     "--interface", "--peer", "--domain", "--tag", "--lease", "--window", "--sessions",
                                     "--security", "--dds-config", "--state-folder", "--log", "--check"}) {
        EXPECT_NE(help.said.find(option), std::string::npos) << option;
    }
}

} // namespace
} // namespace tarvo_test
