// The reader of statistics files.
//
// Input: a byte for the number of slots that the file has (0 to 3) and whether it is cut, then changes to a right file
// of so many: two bytes for the place, a length, and the bytes. What is left of a wrong file must be refused, and what
// is read of a right one must be inside of it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fuzz/Target.h"
#include "support/HandmadeStats.h"

namespace tarvo_test {
namespace {

constexpr uint32_t MOST_SLOTS = 3;

const std::string &Path() {
    static const auto *const path = new std::string("/dev/shm/" + UniqueName("fuzzed"));
    return *path;
}

std::string RightFile(uint32_t slots) {
    const TarvoStatsHeader header = StatsHeader(slots);
    std::string file(reinterpret_cast<const char *>(&header), sizeof(header));
    file.resize(TARVO_STATS_HEADER_SIZE);
    for (uint32_t index = 0; index < slots; ++index) {
        const TarvoStatsSlot slot = StatsSlot(TARVO_STATS_GONE + index, "name", "remote");
        file.append(reinterpret_cast<const char *>(&slot), sizeof(slot));
    }
    return file;
}

void Change(std::string &file, Bytes &input) {
    while (!input.Empty()) {
        const uint32_t place = input.Word();
        const std::string bytes = input.Text(input.Byte());
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            file[(place + i) % file.size()] = bytes[i];
        }
    }
}

void Store(const std::string &content) {
    const int fd = open(Path().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Require(fd >= 0, "a file can be made");
    Require(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()),
            "a file takes its bytes");
    close(fd);
}

bool Terminated(const char (&name)[TARVO_STATS_NAME_SIZE]) { return std::memchr(name, 0, sizeof(name)) != nullptr; }

void CheckSlot(const TarvoStatsSlot &slot) {
    Require(slot.kind <= TARVO_STATS_POOL && slot.engine <= TARVO_STATS_LOOP, "a slot's kind and engine are known");
    Require(slot.state <= TARVO_STATS_REMOTE_CLOSED, "a slot's state is known");
    Require(slot.sequence % 2 == 0, "a slot that is being changed is not read");
    Require(Terminated(slot.name) && Terminated(slot.remote), "names end");
    const TarvoStatsTimes &times = slot.of.pipe.roundTrip;
    Require(TarvoStatsPercentile(&times, 50) <= TarvoStatsPercentile(&times, 99) || times.longest == 0,
            "percentiles are in order");
    if (slot.kind == TARVO_STATS_PIPE) {
        const TarvoStatsPipe &pipe = slot.of.pipe;
        Require(pipe.requests.queued.now <= pipe.requests.queued.most, "a level is never above its highest");
        Require(pipe.sent.firstBytes[0] == 0 && pipe.requests.firstBegun == 0 && pipe.calls.firstAnswered == 0,
                "the words of the first threads are added to the others");
    }
}

void CheckReading(TarvoStatsFile *file, std::size_t size) {
    TarvoStatsReading reading{};
    const int result = TarvoStatsRead(file, &reading);
    Require(result == 0 || result == -EBADMSG || result == -EPROTONOSUPPORT, "a wrong file is refused as one");
    if (result == 0) {
        Require(reading.slots <= MOST_SLOTS, "there are no more slots than the file holds");
        Require(TARVO_STATS_HEADER_SIZE + std::size_t{reading.slots} * TARVO_STATS_SLOT_SIZE <= size,
                "all slots are inside of the file");
        Require(Terminated(reading.header.process), "names end");
        for (uint32_t index = 0; index < reading.slots; ++index) {
            CheckSlot(reading.slot[index]);
        }
        TarvoStatsPipe sum{};
        TarvoStatsSum(&reading, &sum);
        TarvoStatsPipeSince(&sum, &sum, &sum);
        Require(sum.sent.messages[0] == 0, "nothing has come since then");
    }
    TarvoStatsFree(&reading);
}

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    static const std::size_t descriptors = DescriptorCount();
    Bytes input(data, size);
    const uint8_t first = input.Byte();
    std::string content = RightFile(first % (MOST_SLOTS + 1));
    const std::size_t cut = (first & 0x80U) != 0 ? input.Word() : content.size();
    Change(content, input);
    content.resize(cut < content.size() ? cut : content.size());
    Store(content);
    TarvoStatsFile *file = nullptr;
    const int result = TarvoStatsOpen(Path().c_str(), &file);
    Require(result == 0 || result == -EBADMSG || result == -EPROTONOSUPPORT, "a wrong file is refused as one");
    if (result == 0) {
        CheckReading(file, content.size());
        TarvoStatsClose(file);
    }
    Require(DescriptorCount() == descriptors, "the file is closed");
    return 0;
}
