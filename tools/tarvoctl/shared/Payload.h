// The bytes of requests and answers: from the command line, a file or standard input, and out again.
#ifndef TARVO_TARVOCTL_PAYLOAD_H
#define TARVO_TARVOCTL_PAYLOAD_H

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace tarvoctl {

class CommandLine;
class Interrupt;

struct PayloadOptions {
    std::optional<std::string> data;
    std::string file;
    bool hex = false;
};

// Declares DATA, --file and --hex.
void AddPayloadOptions(CommandLine &sub, PayloadOptions &options);

// The request that the options name, 1 to 4000 bytes; empty, after a line on standard error, when there is none.
std::optional<std::string> ReadPayload(const PayloadOptions &options, Interrupt &interrupt);

// A whole file, or standard input for "-". Empty, after a line on standard error, when it cannot be read or is larger
// than `limit`. An interrupt meanwhile ends the process: nothing has been made yet.
std::optional<std::string> ReadInput(const std::string &file, std::size_t limit, Interrupt &interrupt);

// Digits of both cases; blanks, line ends and colons between bytes are skipped. Empty for anything else.
std::optional<std::string> BytesOfHex(const std::string &text);
std::string HexOfBytes(const std::string &bytes);

// Adds "size", "hex" and, when the bytes are UTF-8, "text".
void AddPayloadFields(nlohmann::json &object, const std::string &bytes);

} // namespace tarvoctl

#endif // TARVO_TARVOCTL_PAYLOAD_H
