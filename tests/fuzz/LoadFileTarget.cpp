// The loading of small text files.
//
// Input: the content of the file.
#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "fifo/velm_check.h"
#include "fuzz/Target.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

constexpr std::size_t CHUNK = 1023;

const std::string &Path() {
    static const auto *const path = new std::string(FifoDirectory() + UniqueName("file"));
    return *path;
}

void Store(const std::string &content) {
    const int fd = open(Path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Require(fd >= 0, "a file can be made");
    Require(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()), "a file takes its text");
    close(fd);
}

// A zero byte hides what follows it in its chunk.
std::string Visible(const std::string &content) {
    std::string visible;
    for (std::size_t at = 0; at < content.size(); at += CHUNK) {
        visible += content.substr(at, CHUNK).c_str();
    }
    return visible;
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    static const std::size_t descriptors = DescriptorCount();
    const std::string content = Bytes(data, size).Rest();
    Store(content);
    std::stringstream out;
    out << "before ";
    const int result = LoadFile(Path(), out);
    Require(result == (content.empty() ? -1 : 0), "every file that is not empty is loaded");
    Require(out.str() == "before " + Visible(content), "what was loaded is the text of the file");
    Require(DescriptorCount() == descriptors, "the file is closed");
    return 0;
}
