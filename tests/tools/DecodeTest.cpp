// tarvoctl decode. The bytes are made by the hand-written peer of the tests, which shares no code with the tool.
#include "support/RawFrame.h"
#include "tools/ToolTest.h"

namespace tarvo_test {
namespace {

using nlohmann::json;
using DecodeTest = ToolTest;

std::vector<json> Decoded(const std::string &bytes, int status, const std::vector<std::string> &more = {}) {
    const ToolResult result = RunTool(Joined({"decode", "--json"}, more), bytes);
    EXPECT_EQ(result.status, status) << result.err;
    return result.Json();
}

TEST_F(DecodeTest, EachFieldOfAFrameIsNamed) {
    RawFrame frame = MakeRawFrame(7, 0, "hello", 1500);
    frame.writeStartTime = 123456789012;
    const std::vector<json> pieces = Decoded(EncodeRawFrame(frame), 0);
    ASSERT_EQ(pieces.size(), 1U);
    EXPECT_EQ(pieces[0]["kind"], "frame");
    EXPECT_EQ(pieces[0]["offset"], 0);
    EXPECT_EQ(pieces[0]["size"], 37);
    const json fields = pieces[0]["fields"];
    EXPECT_EQ(fields["magic"], "0xa6b7c8d9");
    EXPECT_EQ(fields["id"], 7);
    EXPECT_EQ(fields["type"], 0);
    EXPECT_EQ(fields["payloadLen"], 5);
    EXPECT_EQ(fields["timeout"], 1500);
    EXPECT_EQ(fields["writeStartTime"], 123456789012);
    EXPECT_EQ(pieces[0]["checksum_right"], true);
    EXPECT_EQ(pieces[0]["payload"]["text"], "hello");
    EXPECT_TRUE(pieces[0]["fault"].is_null());
}

TEST_F(DecodeTest, TextShowsTheSame) {
    const ToolResult result = RunTool({"decode"}, RawResponse(9, "answer"));
    EXPECT_EQ(result.status, 0);
    for (const char *part : {"0x0 frame, 38 bytes", "id              9", "type            1  response",
                             "timeout         -1  ms", "  right", "61 6e 73 77 65 72", "answer"}) {
        EXPECT_THAT(result.out, HasSubstr(part));
    }
}

TEST_F(DecodeTest, PacketsAreToldFromFrames) {
    const std::string bytes = RawConnectPacket("ada_4711", 100, 4711) + RawTerminatePacket() + RawRequest(0, "x");
    const std::vector<json> pieces = Decoded(bytes, 0);
    ASSERT_EQ(pieces.size(), 3U);
    EXPECT_EQ(pieces[0]["kind"], "packet");
    EXPECT_EQ(pieces[0]["fields"]["type"], 0);
    EXPECT_EQ(pieces[0]["fields"]["gid"], 100);
    EXPECT_EQ(pieces[0]["fields"]["pid"], 4711);
    EXPECT_EQ(pieces[0]["fields"]["nameSize"], 8);
    EXPECT_EQ(pieces[0]["payload"]["text"], "ada_4711");
    EXPECT_EQ(pieces[1]["kind"], "packet");
    EXPECT_EQ(pieces[1]["size"], 16);
    EXPECT_EQ(pieces[2]["kind"], "frame");
    EXPECT_EQ(pieces[2]["offset"], 28 + 16);
}

TEST_F(DecodeTest, GarbageIsReportedWithItsOffset) {
    const std::string frame = RawRequest(1, "sound");
    const std::vector<json> pieces = Decoded(frame + "noise" + frame + "\xD9\xC8", 5);
    ASSERT_EQ(pieces.size(), 4U);
    EXPECT_EQ(pieces[1]["kind"], "garbage");
    EXPECT_EQ(pieces[1]["offset"], frame.size());
    EXPECT_EQ(pieces[1]["size"], 5);
    EXPECT_EQ(pieces[1]["payload"]["text"], "noise");
    EXPECT_EQ(pieces[2]["kind"], "frame");
    EXPECT_TRUE(pieces[2]["fault"].is_null());
    EXPECT_EQ(pieces[3]["kind"], "garbage");
}

TEST_F(DecodeTest, WrongChecksumIsNamedAndTheNextFrameFound) {
    RawFrame wrong = MakeRawFrame(1, 0, "spoilt");
    wrong.checksum += 1;
    const std::vector<json> pieces = Decoded(EncodeRawFrame(wrong) + RawRequest(2, "sound"), 5);
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[0]["checksum_right"], false);
    EXPECT_EQ(pieces[0]["fault"], "the checksum is wrong: receivers drop the frame");
    EXPECT_EQ(pieces[1]["fields"]["id"], 2);
}

TEST_F(DecodeTest, LengthThatIsNotValidIsNamed) {
    for (const uint32_t length : {0U, 4001U, 0xFFFFFFFFU}) {
        RawFrame wrong = MakeRawFrame(1, 0, "x");
        wrong.length = length;
        const std::vector<json> pieces = Decoded(EncodeRawFrame(wrong) + RawRequest(2, "sound"), 5);
        ASSERT_EQ(pieces.size(), 2U) << length;
        EXPECT_EQ(pieces[0]["fault"], "the payload length is not valid: receivers drop the frame");
        EXPECT_EQ(pieces[1]["fields"]["id"], 2);
    }
}

TEST_F(DecodeTest, EveryCutIsReportedAndNothingReadBeyondIt) {
    for (const auto &[kind, whole] :
         {std::pair("frame", RawRequest(1, "cut")), std::pair("packet", RawConnectPacket("ada_1", 1, 1))}) {
        for (std::size_t size = 4; size < whole.size(); ++size) {
            const std::vector<json> pieces = Decoded(whole.substr(0, size), 5, {"--kind", kind});
            ASSERT_EQ(pieces.size(), 1U) << size;
            EXPECT_EQ(pieces[0]["size"], size);
            EXPECT_THAT(pieces[0]["fault"].get<std::string>(), HasSubstr("cut off")) << size;
        }
    }
}

TEST_F(DecodeTest, NamesThatServersRefuseAreNamed) {
    EXPECT_EQ(Decoded(RawConnectPacket(std::string(110, 'n'), 1, 1), 0, {"--kind", "packet"})[0]["payload"]["size"],
              110);
    EXPECT_EQ(Decoded(RawConnectPacket(std::string(111, 'n'), 1, 1), 5, {"--kind", "packet"})[0]["fault"],
              "the size of the name is not valid: servers refuse the packet");
}

TEST_F(DecodeTest, UnknownTypesAreNamed) {
    EXPECT_THAT(Decoded(EncodeRawFrame(MakeRawFrame(1, 5, "x")), 5)[0]["fault"].get<std::string>(),
                HasSubstr("type is unknown"));
}

TEST_F(DecodeTest, InputIsAFileStandardInputOrHex) {
    const std::string hex = "d9c8b7a6 01000000 00000000 01000000 dac9b7a6 e8030000 0000000000000000 ff\n";
    EXPECT_EQ(RunTool({"decode", "--data", hex}).status, 0);
    EXPECT_EQ(RunTool({"decode", "--hex"}, hex).status, 0);
    EXPECT_EQ(RunTool({"decode", "-"}, RawRequest(1, "x")).status, 0);
    const ScratchDirectory directory;
    std::ofstream(directory.Path() + "recorded", std::ios::binary) << RawRequest(1, "x");
    EXPECT_EQ(RunTool({"decode", directory.Path() + "recorded"}).status, 0);
}

TEST_F(DecodeTest, InterruptEndsItWhileItWaitsForInput) {
    const ScratchDirectory directory;
    const std::string path = directory.AddFifo("input");
    ToolProcess decode({"decode", path});
    const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC); // returns once the tool opens it
    ASSERT_GE(writer, 0);
    const ToolResult result = decode.Interrupt();
    close(writer);
    EXPECT_EQ(result.status, 130);
    EXPECT_THAT(result.out, IsEmpty());
}

TEST_F(DecodeTest, ColoursAreForTerminals) {
    const std::vector<std::string> arguments = {"decode", "--data", "d9c8b7a6"};
    EXPECT_THAT(RunToolOnTerminal(arguments), HasSubstr("\033[31m -- "));
    EXPECT_THAT(RunTool(arguments).out, Not(HasSubstr("\033[")));
}

TEST_F(DecodeTest, WrongUsageIsRefused) {
    EXPECT_EQ(RunTool({"decode", "/no/such/file"}).status, 2);
    EXPECT_EQ(RunTool({"decode", "--data", "xyz"}).status, 2);
    EXPECT_EQ(RunTool({"decode", "--kind", "letter"}, "x").status, 2);
    EXPECT_EQ(RunTool({"decode", "file", "--data", "00"}).status, 2);
    const ToolResult nothing = RunTool({"decode"});
    EXPECT_EQ(nothing.status, 5);
    EXPECT_THAT(nothing.err, HasSubstr("there is nothing to decode"));
}

} // namespace
} // namespace tarvo_test
