#include "shared/Payload.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "base/UniqueFd.h"
#include "pipe/Message.h"
#include "shared/CommandLine.h"
#include "shared/ExitCode.h"
#include "shared/Interrupt.h"
#include "shared/Output.h"

namespace tarvoctl {
namespace {

int ValueOfDigit(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const int lower = std::tolower(static_cast<unsigned char>(digit));
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

bool IsSeparator(char byte) { return std::isspace(static_cast<unsigned char>(byte)) != 0 || byte == ':'; }

std::optional<std::string> ReadAll(const std::string &file, std::size_t limit) {
    const bool standard = file == "-";
    const UniqueFd own(standard ? -1 : open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!standard && own.Get() < 0) {
        Diagnose("cannot open {}: {}", file, std::strerror(errno));
        return std::nullopt;
    }
    const int fd = standard ? STDIN_FILENO : own.Get();
    if (standard && isatty(fd) == 1) {
        Diagnose("reading from the terminal; Ctrl-D on a line of its own ends it");
    }
    std::string bytes;
    std::array<char, 65536> chunk{};
    for (;;) {
        const ssize_t count = read(fd, chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            Diagnose("cannot read {}: {}", standard ? "standard input" : file, std::strerror(errno));
            return std::nullopt;
        }
        if (count == 0) {
            return bytes;
        }
        bytes.append(chunk.data(), static_cast<std::size_t>(count));
        if (bytes.size() > limit) {
            Diagnose("{} holds more than the {} bytes that can be used", standard ? "standard input" : file, limit);
            return std::nullopt;
        }
    }
}

// What the options name, before it is looked at.
std::optional<std::string> RawData(const PayloadOptions &options, Interrupt &interrupt) {
    if (options.data) {
        return options.data;
    }
    // Hex digits and their separators may take many times the bytes that they stand for.
    const std::size_t limit = options.hex ? 16 * Message::MAX_PAYLOAD_LEN : Message::MAX_PAYLOAD_LEN;
    return ReadInput(options.file.empty() ? "-" : options.file, limit, interrupt);
}

bool IsUtf8(const std::string &bytes) {
    try {
        return !nlohmann::json(bytes).dump().empty();
    } catch (const nlohmann::json::type_error &) {
        return false;
    }
}

} // namespace

void AddPayloadOptions(CommandLine &sub, PayloadOptions &options) {
    Option data = sub.Add("DATA", options.data, "The request; without it --file or standard input");
    sub.Add("--file", options.file, "Take the request from FILE (- is standard input)").Type("FILE").Excludes(data);
    sub.Flag("--hex", options.hex, "The request is given in hex digits, and the answer printed so");
}

std::optional<std::string> ReadPayload(const PayloadOptions &options, Interrupt &interrupt) {
    std::optional<std::string> bytes = RawData(options, interrupt);
    if (bytes && options.hex) {
        bytes = BytesOfHex(*bytes);
        if (!bytes) {
            Diagnose("the request is not made of pairs of hex digits");
        }
    }
    if (bytes && (bytes->empty() || bytes->size() > Message::MAX_PAYLOAD_LEN)) {
        Diagnose("a request has 1 to {} bytes, this one {}", std::uint64_t{Message::MAX_PAYLOAD_LEN}, bytes->size());
        return std::nullopt;
    }
    return bytes;
}

std::optional<std::string> ReadInput(const std::string &file, std::size_t limit, Interrupt &interrupt) {
    // The open of a FIFO and each read may wait for ever, and blocked signals do not cut them short.
    interrupt.OnRequest([] { _exit(EXIT_INTERRUPTED); });
    std::optional<std::string> bytes = ReadAll(file, limit);
    interrupt.OnRequest(nullptr);
    return bytes;
}

std::optional<std::string> BytesOfHex(const std::string &text) {
    std::string bytes;
    std::size_t i = 0;
    while (i < text.size()) {
        if (IsSeparator(text[i])) {
            ++i;
            continue;
        }
        const int high = ValueOfDigit(text[i]);
        const int low = i + 1 < text.size() ? ValueOfDigit(text[i + 1]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return bytes;
}

std::string HexOfBytes(const std::string &bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char byte : bytes) {
        text += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    }
    return text;
}

void AddPayloadFields(nlohmann::json &object, const std::string &bytes) {
    object["size"] = bytes.size();
    object["hex"] = HexOfBytes(bytes);
    if (IsUtf8(bytes)) {
        object["text"] = bytes;
    }
}

} // namespace tarvoctl
