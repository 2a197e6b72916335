#include "fuzz/PacketReader.h"

namespace tarvo_test {

namespace {

constexpr unsigned char MAGIC[] = {0xD9, 0xC8, 0xB7, 0xA6};
constexpr unsigned TYPE = 4;
constexpr unsigned NAME_SIZE = 7;
constexpr unsigned NAME = 8;
constexpr std::size_t FIELD_SIZE = 4;
constexpr uint32_t LONGEST_NAME = 110;
constexpr int32_t TERMINATE = 1;

uint32_t LittleEndian(const std::string &bytes) {
    uint32_t value = 0;
    for (std::size_t i = bytes.size(); i > 0; --i) {
        value = value << 8 | static_cast<unsigned char>(bytes[i - 1]);
    }
    return value;
}

} // namespace

void PacketReader::Read(const std::string &bytes) {
    for (std::size_t at = 0; at < bytes.size() && !terminated;) {
        const std::string got = bytes.substr(at, Wanted());
        at += got.size();
        // After anything unexpected the next read looks for a magic again.
        field = Accepts(got) ? field + 1 : 0;
    }
}

void PacketReader::Restart() {
    field = 0;
    terminated = false;
}

std::size_t PacketReader::Wanted() const {
    if (field < TYPE) {
        return 1;
    }
    return field == NAME ? nameSize : FIELD_SIZE;
}

bool PacketReader::Accepts(const std::string &bytes) {
    if (field < TYPE) {
        return static_cast<unsigned char>(bytes[0]) == MAGIC[field];
    }
    if (bytes.size() != Wanted()) {
        return false;
    }
    if (field == TYPE) {
        const auto type = static_cast<int32_t>(LittleEndian(bytes));
        terminated = type == TERMINATE;
        return type < TERMINATE;
    }
    if (field == NAME_SIZE) {
        nameSize = LittleEndian(bytes);
        return nameSize >= 1 && nameSize <= LONGEST_NAME;
    }
    if (field == NAME) {
        names.emplace_back(bytes.c_str());
        return false;
    }
    return true;
}

} // namespace tarvo_test
