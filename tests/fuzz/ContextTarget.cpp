// The conversions between a full security context and the type alone.
//
// Input: a context.
#include <sstream>
#include <string>
#include <vector>

#include "fifo/security_context.h"
#include "fuzz/Target.h"

namespace tarvo_test {
namespace {

using Conversion = int (*)(const char *, char **);

constexpr char UNTOUCHED[] = "untouched";

// What a conversion yields. An empty context is refused and leaves the result alone.
std::string Converted(Conversion conversion, const std::string &context) {
    char marker[] = "marker";
    char *out = marker;
    const int result = conversion(context.c_str(), &out);
    if (context.empty()) {
        Require(result == -1 && out == marker, "an empty context is refused and nothing written");
        return UNTOUCHED;
    }
    Require(result == 0 && out != nullptr && out != marker, "a context is converted");
    const std::string converted = out;
    AuthProxyFree(out);
    return converted;
}

// The third of exactly four fields that are not empty.
std::string TypeOf(const std::string &context) {
    std::vector<std::string> fields;
    std::istringstream stream(context);
    for (std::string field; std::getline(stream, field, ':');) {
        if (!field.empty()) {
            fields.push_back(field);
        }
    }
    return fields.size() == 4 ? fields[2] : "";
}

void CheckConversions(const std::string &context) {
    const std::string type = Converted(GetVornConBySelinuxCon, context);
    const std::string full = Converted(GetSelinuxConByVornCon, context);
    if (context.empty()) {
        return;
    }
    Require(type == TypeOf(context), "the type is the third of four fields");
    Require(full == "system_u:object_r:" + context + ":s0", "a type becomes a full context");
    if (context.find(':') == std::string::npos) {
        Require(Converted(GetVornConBySelinuxCon, full) == context, "a type survives both conversions");
    }
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    // As a string of the C library: up to its first zero byte.
    CheckConversions(Bytes(data, size).Rest().c_str());
    return 0;
}
