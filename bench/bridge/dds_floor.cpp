// The floor under a bridge over the DDS: what two processes that only copy bytes between FIFOs and a topic make of a
// call from one machine to the other. The topic is reliable and keeps all, as the bridge's; what comes is delivered on
// the thread that receives. No frames, no checks, no sessions, no end that is noticed.
//
//   dds_floor SENT RECEIVED IN OUT READY        copies what is read from IN to the topic SENT, and what comes of the
//                                               topic RECEIVED to OUT; makes the file READY once both have their other
//                                               end
//
// Its server and its client are those of tcp_floor.
#include <dds/dds.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>

#include "floor.h"
#include "tarvo_bench_floor.h"

namespace tarvo_bench {
namespace {

constexpr dds_domainid_t DOMAIN = 78;
constexpr auto LOOK_EVERY = std::chrono::milliseconds(10);

dds_entity_t Made(dds_entity_t entity, const char *what) {
    if (entity < 0) {
        throw std::runtime_error(std::string(what) + ": " + dds_strretcode(entity));
    }
    return entity;
}

// On the thread that receives.
void OnDataAvailable(dds_entity_t reader, void *context) {
    const auto to = static_cast<int>(reinterpret_cast<intptr_t>(context));
    std::array<void *, 16> samples{};
    std::array<dds_sample_info_t, 16> infos;
    dds_return_t count = 0;
    while ((count = dds_take(reader, samples.data(), infos.data(), samples.size(), samples.size())) > 0) {
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            if (infos[i].valid_data) {
                const auto &bytes = static_cast<const tarvo_bench_FloorBytes *>(samples[i])->bytes;
                WriteAll(to, reinterpret_cast<const char *>(bytes._buffer), bytes._length);
            }
        }
        dds_return_loan(reader, samples.data(), count);
    }
}

bool AreMatched(dds_entity_t writer, dds_entity_t reader) {
    dds_publication_matched_status_t readers{};
    dds_subscription_matched_status_t writers{};
    return dds_get_publication_matched_status(writer, &readers) == 0 && readers.current_count > 0 &&
           dds_get_subscription_matched_status(reader, &writers) == 0 && writers.current_count > 0;
}

[[noreturn]] void Relay(const char *sent, const char *received, const char *in, const char *out, const char *ready) {
    const int from = OpenFifo(in);
    const int to = OpenFifo(out);
    const dds_entity_t participant = Made(dds_create_participant(DOMAIN, nullptr, nullptr), "participant");
    dds_qos_t *const qos = dds_create_qos();
    dds_qset_reliability(qos, DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
    dds_qset_history(qos, DDS_HISTORY_KEEP_ALL, 0);
    const auto topic = [participant](const char *name) {
        return Made(dds_create_topic(participant, &tarvo_bench_FloorBytes_desc, name, nullptr, nullptr), name);
    };
    dds_listener_t *const told = dds_create_listener(reinterpret_cast<void *>(static_cast<intptr_t>(to)));
    dds_lset_data_available(told, OnDataAvailable);
    const dds_entity_t reader = Made(dds_create_reader(participant, topic(received), qos, told), "reader");
    const dds_entity_t writer = Made(dds_create_writer(participant, topic(sent), qos, nullptr), "writer");
    while (!AreMatched(writer, reader)) {
        std::this_thread::sleep_for(LOOK_EVERY);
    }
    Checked(open(ready, O_CREAT | O_WRONLY | O_CLOEXEC, 0600), ready);
    std::array<char, BUFFER> bytes;
    for (;;) {
        tarvo_bench_FloorBytes sample{};
        sample.bytes._length = static_cast<uint32_t>(ReadSome(from, bytes.data(), bytes.size()));
        sample.bytes._maximum = sample.bytes._length;
        sample.bytes._buffer = reinterpret_cast<uint8_t *>(bytes.data());
        Made(dds_write(writer, &sample), "write to the topic");
    }
}

} // namespace
} // namespace tarvo_bench

int main(int argc, char **argv) {
    if (argc != 6) {
        std::fputs("Usage: dds_floor SENT RECEIVED IN OUT READY; see its source\n", stderr);
        return 2;
    }
    try {
        tarvo_bench::Relay(argv[1], argv[2], argv[3], argv[4], argv[5]);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "dds_floor: %s\n", error.what());
        return 1;
    }
}
