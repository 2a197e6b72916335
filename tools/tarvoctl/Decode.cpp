// tarvoctl decode: shows what recorded bytes mean.
#include <cctype>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "decode/Decoder.h"
#include "shared/Command.h"
#include "shared/ExitCode.h"
#include "shared/Output.h"
#include "shared/Payload.h"

namespace tarvoctl {
namespace {

constexpr std::size_t INPUT_LIMIT = 64UL * 1024 * 1024;
constexpr std::size_t BYTES_A_LINE = 16;

struct DecodeOptions {
    std::string file = "-";
    std::optional<std::string> data;
    std::string kind = "any";
    bool hex = false;
    bool json = false;
};

const char *KindText(Kind kind) { return kind == Kind::FRAME ? "frame" : kind == Kind::PACKET ? "packet" : "garbage"; }

std::string Dump(const std::string &bytes) {
    std::string text;
    for (std::size_t at = 0; at < bytes.size(); at += BYTES_A_LINE) {
        std::string hex;
        std::string letters;
        for (const char byte : bytes.substr(at, BYTES_A_LINE)) {
            const auto value = static_cast<unsigned char>(byte);
            hex += fmt::format("{:02x} ", value);
            letters += std::isprint(value) != 0 ? byte : '.';
        }
        text += fmt::format("    {:04x}  {:<48} {}\n", at, hex, letters);
    }
    return text;
}

std::string TextOf(const Piece &piece) {
    const std::string fault = piece.fault.empty() ? "" : Painted(Colour::RED, " -- " + piece.fault);
    std::string text = fmt::format("{:#x} {}, {} bytes{}\n", piece.offset, Painted(Colour::BOLD, KindText(piece.kind)),
                                   piece.size, fault);
    for (const Field &field : piece.fields) {
        text +=
            fmt::format("  {:<15} {}{}{}\n", field.name, field.text, field.remark.empty() ? "" : "  ", field.remark);
    }
    if (!piece.payload.empty()) {
        text += piece.kind == Kind::PACKET && piece.fault.empty() ? fmt::format("  {:<15} {}\n", "name", piece.payload)
                                                                  : Dump(piece.payload);
    }
    return text;
}

nlohmann::json JsonOf(const Piece &piece) {
    nlohmann::json object = {{"offset", piece.offset}, {"size", piece.size}, {"kind", KindText(piece.kind)}};
    for (const Field &field : piece.fields) {
        nlohmann::json &value = object["fields"][field.name];
        value = nlohmann::json::parse(field.text, nullptr, false);
        if (value.is_discarded()) {
            value = field.text; // a number in hex digits
        }
    }
    if (piece.kind == Kind::FRAME && !piece.fields.empty()) {
        object["checksum_right"] = piece.fields[4].remark == "right";
    }
    AddPayloadFields(object["payload"], piece.payload);
    object["fault"] = piece.fault.empty() ? nlohmann::json() : nlohmann::json(piece.fault);
    return object;
}

std::optional<std::string> Input(const DecodeOptions &options, Interrupt &interrupt) {
    std::optional<std::string> bytes = options.data ? options.data : ReadInput(options.file, INPUT_LIMIT, interrupt);
    if (bytes && (options.hex || options.data)) {
        bytes = BytesOfHex(*bytes);
        if (!bytes) {
            Diagnose("the input is not made of pairs of hex digits");
        }
    }
    return bytes;
}

int RunDecode(const DecodeOptions &options, Interrupt &interrupt) {
    const std::optional<std::string> bytes = Input(options, interrupt);
    if (!bytes) {
        return EXIT_USAGE;
    }
    const Kind kind = options.kind == "frame" ? Kind::FRAME : options.kind == "packet" ? Kind::PACKET : Kind::ANY;
    std::size_t faults = 0;
    for (const Piece &piece : Decode(*bytes, kind)) {
        faults += piece.fault.empty() ? 0 : 1;
        if (options.json) {
            PutJson(JsonOf(piece));
        } else {
            Put(TextOf(piece));
        }
    }
    if (bytes->empty()) {
        Diagnose("there is nothing to decode");
    }
    if (faults > 0) {
        Diagnose("{} faults", faults);
    }
    return faults > 0 || bytes->empty() ? EXIT_FINDINGS : EXIT_DONE;
}

} // namespace

void AddDecode(CommandLine &app, Command &command) {
    auto options = std::make_shared<DecodeOptions>();
    CommandLine sub = AddSubcommand(
        app, command, "decode", "Show the fields of recorded frames and packets, and what is wrong with them",
        "0 all of it is sound; 2 wrong usage, or the input cannot be read; 5 there is garbage, "
        "a wrong checksum, or nothing at all; 130 interrupted.");
    Option file = sub.Add("FILE", options->file, "Recorded bytes (default: - for standard input)");
    sub.Add("--data", options->data, "The bytes themselves, in hex digits").Type("HEX").Excludes(file);
    sub.Flag("--hex", options->hex, "The input is text in hex digits");
    sub.Add("--kind", options->kind, "any, frame (recorded from a pipe) or packet (from a server's FIFO)")
        .OneOf({"any", "frame", "packet"})
        .Type("KIND")
        .ShowDefault();
    sub.WhenNamed([options, &command] {
        options->json = command.common.json;
        command.run = [options](Interrupt &interrupt) { return RunDecode(*options, interrupt); };
    });
}

} // namespace tarvoctl
