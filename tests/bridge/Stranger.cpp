// Somebody on the network of bridges who is none: writes what it likes to their topics and to the ports of their DDS.
// It obeys one line of text at a time and answers "= " and how much of it went out:
//
//   bundles TO FROM SEED COUNT    to one run; those in the name of FROM are such that no bridge takes them
//   announcements FROM SEED COUNT likewise
//   packets ADDRESS SEED COUNT    bytes that are nobody's, and some that begin like the DDS's
#include <arpa/inet.h>
#include <dds/dds.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "tarvo_bridge.h"

namespace {

constexpr char CONFIGURATION[] =
    "<Domain Id=\"any\"><General><Interfaces><NetworkInterface name=\"eth0\"/></Interfaces>"
    "</General><Discovery><Tag>tarvo</Tag></Discovery></Domain>";
constexpr uint64_t OWN_RUN = 0x5742414e474552;
constexpr unsigned OWN_RUNS = 400; // more than a bridge wants to know
constexpr unsigned MOST_ITEMS = 256;
constexpr unsigned MOST_BYTES = 4000;

std::mt19937 generator;
unsigned Below(unsigned limit) { return static_cast<unsigned>(generator() % limit); }

template <std::size_t SIZE>
void Put(const std::string &text, char (&to)[SIZE]) {
    std::memset(to, 0, SIZE);
    text.copy(to, SIZE - 1);
}

std::string NoName() {
    const std::vector<std::string> names{"",        "/",    "../../tmp/x", "a\nb",
                                         "\x1b[2J", "\x7f", "a;b",         std::string(99, '/')};
    return names[Below(static_cast<unsigned>(names.size()))];
}
std::string SomeName() { return Below(3) == 0 ? "camera" : "n" + std::to_string(Below(1000)); }

// What the sample of a bundle points to.
std::vector<tarvo_bridge_v1_Item> items(MOST_ITEMS);
std::array<uint8_t, MOST_BYTES> bytes;

void FillGood(tarvo_bridge_v1_Item &item) {
    item = {};
    item.session = Below(4);
    item.opener = Below(2) == 0;
    item.content._d = static_cast<tarvo_bridge_v1_ItemKind>(Below(5));
    if (item.content._d == tarvo_bridge_v1_ITEM_OPEN) {
        Put(SomeName(), item.content._u.open.service);
        Put(SomeName(), item.content._u.open.client);
    } else if (item.content._d == tarvo_bridge_v1_ITEM_FRAME) {
        item.content._u.frame.payload._length = 1 + Below(MOST_BYTES);
        item.content._u.frame.payload._buffer = bytes.data();
    } else {
        item.content._u.frames = static_cast<uint32_t>(generator());
    }
}

void FillBad(tarvo_bridge_v1_Item &item) {
    item = {};
    item.session = 1;
    item.opener = true;
    if (Below(2) == 0) {
        item.content._d = tarvo_bridge_v1_ITEM_OPEN;
        item.content._u.open.window = 64;
        const bool service = Below(2) == 0;
        Put(service ? NoName() : "camera", item.content._u.open.service);
        Put(service ? "viewer" : NoName(), item.content._u.open.client);
    } else {
        item.content._d = tarvo_bridge_v1_ITEM_FRAME;
        item.content._u.frame.type = Below(2) == 0 ? 0 : 2 + static_cast<uint32_t>(generator() / 2);
        item.content._u.frame.payload._length = item.content._u.frame.type == 0 ? 0 : 1 + Below(MOST_BYTES);
        item.content._u.frame.payload._buffer = bytes.data();
    }
}

class Stranger {
public:
    bool Join();
    unsigned WriteBundles(uint64_t to, uint64_t from, unsigned count);
    unsigned WriteAnnouncements(uint64_t from, unsigned count);
    void Leave() { dds_delete(domain); }

private:
    dds_entity_t domain = 0;
    dds_entity_t participant = 0;
    dds_entity_t bundles = 0;
    dds_entity_t announcements = 0;
};

dds_qos_t *Reliable(dds_durability_kind_t durability) {
    dds_qos_t *const qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(10));
    dds_qset_durability(qos, durability);
    dds_qset_history(qos, durability == DDS_DURABILITY_VOLATILE ? DDS_HISTORY_KEEP_ALL : DDS_HISTORY_KEEP_LAST, 1);
    return qos;
}

bool Stranger::Join() {
    domain = dds_create_domain(0, CONFIGURATION);
    participant = dds_create_participant(0, nullptr, nullptr);
    bundles = dds_create_topic(participant, &tarvo_bridge_v1_Bundle_desc, "tarvo_bridge_v1_bundles", nullptr, nullptr);
    const dds_entity_t runs =
        dds_create_topic(participant, &tarvo_bridge_v1_Announcement_desc, "tarvo_bridge_v1_runs", nullptr, nullptr);
    dds_qos_t *const qos = Reliable(DDS_DURABILITY_TRANSIENT_LOCAL);
    announcements = dds_create_writer(participant, runs, qos, nullptr);
    dds_delete_qos(qos);
    return bundles > 0 && announcements > 0;
}

unsigned Stranger::WriteBundles(uint64_t to, uint64_t from, unsigned count) {
    std::array<char, 32> partition;
    std::snprintf(partition.data(), partition.size(), "run-%016llx", static_cast<unsigned long long>(to));
    dds_qos_t *const where = dds_create_qos();
    dds_qset_partition1(where, partition.data());
    const dds_entity_t publisher = dds_create_publisher(participant, where, nullptr);
    dds_delete_qos(where);
    dds_qos_t *const qos = Reliable(DDS_DURABILITY_VOLATILE);
    const dds_entity_t writer = dds_create_writer(publisher, bundles, qos, nullptr);
    dds_delete_qos(qos);
    dds_publication_matched_status_t matched{};
    while (dds_get_publication_matched_status(writer, &matched) == DDS_RETCODE_OK && matched.current_count == 0) {
        dds_sleepfor(DDS_MSECS(1));
    }
    unsigned written = 0;
    for (unsigned i = 0; i < count; ++i) {
        tarvo_bridge_v1_Bundle sample{};
        const bool forged = Below(2) == 0;
        sample.from = forged ? from : OWN_RUN + Below(OWN_RUNS);
        sample.to = to;
        sample.mine = Below(6);
        sample.theirs = Below(6);
        sample.confirmed = Below(2) == 0;
        sample.position = Below(6);
        sample.items._length = Below(16) == 0 ? MOST_ITEMS : Below(4);
        sample.items._length += forged && sample.items._length == 0 ? 1 : 0;
        sample.items._buffer = items.data();
        for (uint32_t k = 0; k < sample.items._length; ++k) {
            FillGood(items[k]);
        }
        if (forged) {
            FillBad(items[Below(sample.items._length)]);
        }
        written += dds_write(writer, &sample) == DDS_RETCODE_OK ? 1 : 0;
    }
    const bool arrived = dds_wait_for_acks(writer, DDS_SECS(20)) == DDS_RETCODE_OK;
    dds_delete(publisher);
    return arrived ? written : 0;
}

unsigned Stranger::WriteAnnouncements(uint64_t from, unsigned count) {
    static char names[1024][101];
    unsigned written = 0;
    for (unsigned i = 0; i < count; ++i) {
        tarvo_bridge_v1_Announcement sample{};
        const unsigned wrong = Below(6);
        sample.run = wrong == 0 ? 0 : wrong == 1 ? from : OWN_RUN + Below(OWN_RUNS);
        sample.version = Below(3);
        Put(wrong == 1 || wrong == 2 ? NoName() : SomeName(), sample.machine);
        sample.services._length = Below(50) == 0 ? 1024 : Below(8);
        sample.services._buffer = names;
        for (uint32_t k = 0; k < sample.services._length; ++k) {
            Put(Below(2) == 0 ? NoName() : SomeName(), names[k]);
        }
        sample.names = sample.services;
        written += dds_write(announcements, &sample) == DDS_RETCODE_OK ? 1 : 0;
    }
    return dds_wait_for_acks(announcements, DDS_SECS(20)) == DDS_RETCODE_OK ? written : 0;
}

// A header as the DDS has it, and pieces whose kinds and lengths may be so.
void PutPieces(std::string &packet) {
    const char start[] = {'R', 'T', 'P', 'S', 2, 1, 1, 16};
    packet.replace(0, sizeof(start), start, sizeof(start));
    const std::array<uint8_t, 10> kinds{0x06, 0x07, 0x08, 0x09, 0x0c, 0x0e, 0x12, 0x13, 0x15, 0x16};
    std::size_t at = 20;
    while (at + 4 <= packet.size()) {
        const unsigned length = Below(200);
        packet[at] = static_cast<char>(kinds[Below(kinds.size())]);
        packet[at + 2] = static_cast<char>(length);
        packet[at + 3] = Below(20) == 0 ? '\x7f' : '\0';
        at += 4 + length;
    }
}

unsigned SendPackets(const std::string &address, unsigned count) {
    const std::array<uint16_t, 6> ports{7400, 7401, 7410, 7411, 7412, 7413};
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unsigned sent = 0;
    for (unsigned i = 0; i < count; ++i) {
        std::string packet(Below(20) == 0 ? Below(20) : 24 + Below(1400), '\0');
        for (char &byte : packet) {
            byte = static_cast<char>(generator());
        }
        if (packet.size() > 20 && Below(4) != 0) {
            PutPieces(packet);
        }
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(ports[Below(ports.size())]);
        inet_pton(AF_INET, address.c_str(), &to.sin_addr);
        const ssize_t result =
            sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to));
        sent += result == static_cast<ssize_t>(packet.size()) ? 1 : 0;
    }
    close(fd);
    return sent;
}

unsigned Obey(Stranger &stranger, const std::string &line) {
    std::istringstream words(line);
    std::string what;
    std::string whom; // a run in hexadecimal digits, or an address
    std::string from;
    unsigned seed = 0;
    unsigned count = 0;
    words >> what >> whom;
    if (what == "bundles") {
        words >> from;
    }
    words >> seed >> count;
    generator.seed(seed);
    if (what == "packets") {
        return SendPackets(whom, count);
    }
    const uint64_t run = std::stoull(whom, nullptr, 16);
    return what == "bundles" ? stranger.WriteBundles(run, std::stoull(from, nullptr, 16), count)
                             : stranger.WriteAnnouncements(run, count);
}

} // namespace

int main() {
    Stranger stranger;
    if (!stranger.Join()) {
        return 1;
    }
    std::cout << "! ready" << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
        std::cout << "= " << Obey(stranger, line) << std::endl;
    }
    stranger.Leave();
    return 0;
}
