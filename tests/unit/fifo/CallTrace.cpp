#include "unit/fifo/CallTrace.h"

#include <algorithm>
#include <cctype>

#include "unit/fifo/LogCalls.h"

namespace tarvo_test {

CallTrace::CallTrace(std::string fifoName) : name(std::move(fifoName)) {
    for (const Call call : {Call::Access, Call::Unlink, Call::Mkfifo, Call::Chmod, Call::Chown, Call::Link, Call::Lstat,
                            Call::Realpath, Call::Open}) {
        hooks.emplace_back(
            call, [this](const CallInfo &info) { Record(info); }, Where().Always().ThisThread().PathHas(name));
    }
}

std::string CallTrace::Short(const char *path) const {
    const std::string text = path;
    if (text.compare(0, name.size(), name) != 0) {
        return text;
    }
    const std::string rest = text.substr(name.size());
    if (rest.empty()) {
        return "NAME";
    }
    const bool digits = std::all_of(rest.begin(), rest.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    return digits && rest.size() <= 9 ? "TEMP" : text;
}

void CallTrace::Record(const CallInfo &call) {
    const std::string path = Short(call.path);
    switch (call.call) {
    case Call::Access:
        return calls.push_back("access " + path);
    case Call::Unlink:
        return calls.push_back("unlink " + path);
    case Call::Mkfifo:
        tempNames.emplace_back(call.path);
        return calls.push_back(Text("mkfifo %s %o", path.c_str(), static_cast<unsigned>(call.number)));
    case Call::Chmod:
        return calls.push_back(Text("chmod %s %o", path.c_str(), static_cast<unsigned>(call.number)));
    case Call::Chown:
        return calls.push_back(Text("chown %s %d:%zu", path.c_str(), call.number, call.size));
    case Call::Link:
        return calls.push_back("link " + path + " " + Short(call.path2));
    case Call::Lstat:
        return calls.push_back("lstat " + path);
    case Call::Realpath:
        return calls.push_back("realpath " + path);
    default:
        return calls.push_back(Text("open %s %#x", path.c_str(), static_cast<unsigned>(call.number)));
    }
}

} // namespace tarvo_test
