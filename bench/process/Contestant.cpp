#include "Contestant.h"

#include <algorithm>
#include <atomic>
#include <cstring>

namespace bench {

namespace {

std::atomic<uint64_t> oneWayMessages{0};

} // namespace

const std::vector<Contestant> &Contestants() {
    static const std::vector<Contestant> found = {
        TarvoContestant(),     FloorContestant(), FifoContestant(),
#ifdef BENCH_WITH_ZEROMQ
        ZeroMqContestant(),
#endif
#ifdef BENCH_WITH_NNG
        NngContestant(),
#endif
#ifdef BENCH_WITH_SDBUS
        SdBusContestant(),
#endif
#ifdef BENCH_WITH_DBUS
        DbusContestant(),
#endif
#ifdef BENCH_WITH_CAPNPROTO
        CapnProtoContestant(),
#endif
#ifdef BENCH_WITH_GRPC
        GrpcContestant(),
#endif
    };
    return found;
}

const std::vector<const char *> &AbsentContestants() {
    static const std::vector<const char *> absent = {
#ifndef BENCH_WITH_ZEROMQ
        "ZeroMQ",
#endif
#ifndef BENCH_WITH_NNG
        "nng",
#endif
#ifndef BENCH_WITH_SDBUS
        "sd-bus",
#endif
#ifndef BENCH_WITH_DBUS
        "D-Bus daemon",
#endif
#ifndef BENCH_WITH_CAPNPROTO
        "Cap'n Proto",
#endif
#ifndef BENCH_WITH_GRPC
        "gRPC",
#endif
    };
    return absent;
}

Answer HandleMessage(const char *data, std::size_t size, uint64_t &countBuffer) {
    if (size == 0) {
        return {nullptr, 0};
    }
    switch (data[0]) {
    case OP_ECHO:
        return {data, size};
    case OP_COUNT:
        countBuffer = oneWayMessages.load(std::memory_order_relaxed);
        return {reinterpret_cast<const char *>(&countBuffer), sizeof(countBuffer)};
    default:
        oneWayMessages.fetch_add(1, std::memory_order_relaxed);
        return {nullptr, 0};
    }
}

uint64_t FirstWord(const char *data, std::size_t size) {
    uint64_t word = 0;
    std::memcpy(&word, data, std::min(size, sizeof(word)));
    return word;
}

} // namespace bench
