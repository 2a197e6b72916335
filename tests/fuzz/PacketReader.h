#ifndef TARVO_FUZZ_PACKETREADER_H
#define TARVO_FUZZ_PACKETREADER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tarvo_test {

// Reads the bytes of a server's FIFO as it is documented to: the magic byte by byte, then each field by one read, which
// gets what is there. Shares no code with the library.
class PacketReader {
public:
    // The bytes that are in the FIFO together. What follows a packet that ends the server is lost.
    void Read(const std::string &bytes);
    void Restart();

    bool Terminated() const { return terminated; }
    // Not in the middle of a packet.
    bool AtBeginning() const { return field == 0; }
    // The names in the packets so far, right or wrong, each up to its first zero byte.
    const std::vector<std::string> &Names() const { return names; }

private:
    std::size_t Wanted() const;
    bool Accepts(const std::string &bytes);

    unsigned field = 0; // 0 to 3: a byte of the magic; then type, group, process, size of the name, name
    uint32_t nameSize = 0;
    bool terminated = false;
    std::vector<std::string> names;
};

} // namespace tarvo_test

#endif // TARVO_FUZZ_PACKETREADER_H
