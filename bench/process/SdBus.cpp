#include "SdBus.h"

namespace bench {

namespace {

constexpr char OBJECT[] = "/bench";
constexpr char INTERFACE[] = "bench.Echo";
constexpr char MEMBER[] = "Call";
constexpr uint64_t NO_LIMIT = UINT64_MAX;

int OnMessage(sd_bus_message *message, void *, sd_bus_error *) {
    if (sd_bus_message_is_method_call(message, INTERFACE, MEMBER) <= 0) {
        return 0;
    }
    const void *data = nullptr;
    std::size_t size = 0;
    sd_bus_message_read_array(message, 'y', &data, &size);
    uint64_t count = 0;
    const Answer answer = HandleMessage(static_cast<const char *>(data), size, count);
    if (answer.size == 0) {
        return 1;
    }
    sd_bus_message *reply = nullptr;
    sd_bus_message_new_method_return(message, &reply);
    sd_bus_message_append_array(reply, 'y', answer.data, answer.size);
    const int ret = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return ret < 0 ? ret : 1;
}

} // namespace

void ServeSdBus(sd_bus *bus) {
    sd_bus_add_filter(bus, nullptr, OnMessage, nullptr);
    for (;;) {
        const int ret = sd_bus_process(bus, nullptr);
        if (ret < 0 || (ret == 0 && sd_bus_wait(bus, NO_LIMIT) < 0)) {
            break;
        }
    }
    sd_bus_close_unref(bus);
}

bool SdBusClient::Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) {
    sd_bus_message *message = Message(lane, data, size);
    sd_bus_message *reply = nullptr;
    const int ret = sd_bus_call(buses[lane], message, 0, nullptr, &reply);
    sd_bus_message_unref(message);
    if (ret < 0) {
        return false;
    }
    const void *answer = nullptr;
    std::size_t answerSize = 0;
    sd_bus_message_read_array(reply, 'y', &answer, &answerSize);
    word = FirstWord(static_cast<const char *>(answer), answerSize);
    sd_bus_message_unref(reply);
    return true;
}

bool SdBusClient::Send(const char *data, std::size_t size) {
    sd_bus_message *message = Message(0, data, size);
    sd_bus_message_set_expect_reply(message, 0);
    const bool sent = sd_bus_send(buses[0], message, nullptr) >= 0 && sd_bus_flush(buses[0]) >= 0;
    sd_bus_message_unref(message);
    return sent;
}

sd_bus_message *SdBusClient::Message(std::size_t lane, const char *data, std::size_t size) const {
    sd_bus_message *message = nullptr;
    sd_bus_message_new_method_call(buses[lane], &message, name, OBJECT, INTERFACE, MEMBER);
    sd_bus_message_append_array(message, 'y', data, size);
    return message;
}

} // namespace bench
