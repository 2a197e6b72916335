#include "SdBus.h"

#include <algorithm>
#include <memory>

#include "Time.h"

namespace bench {

namespace {

constexpr char OBJECT[] = "/bench";
constexpr char INTERFACE[] = "bench.Echo";
constexpr char MEMBER[] = "Call";
constexpr uint64_t NO_LIMIT_USEC = UINT64_MAX;

uint64_t WordOf(sd_bus_message *reply) {
    const void *answer = nullptr;
    std::size_t size = 0;
    sd_bus_message_read_array(reply, 'y', &answer, &size);
    return FirstWord(static_cast<const char *>(answer), size);
}

int OnMessage(sd_bus_message *message, void *, sd_bus_error *) {
    if (sd_bus_message_is_method_call(message, INTERFACE, MEMBER) <= 0) {
        return 0;
    }
    const void *data = nullptr;
    std::size_t size = 0;
    sd_bus_message_read_array(message, 'y', &data, &size);
    const Answer answer = HandleMessage(static_cast<const char *>(data), size);
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
        if (ret < 0 || (ret == 0 && sd_bus_wait(bus, NO_LIMIT_USEC) < 0)) {
            break;
        }
    }
    sd_bus_close_unref(bus);
}

SdBusClient::~SdBusClient() {
    for (sd_bus *bus : buses) {
        sd_bus_close_unref(bus);
    }
}

bool SdBusClient::Call(std::size_t lane, const char *data, std::size_t size, uint64_t &word) {
    sd_bus_message *message = Message(lane, data, size);
    sd_bus_message *reply = nullptr;
    const int ret = sd_bus_call(buses[lane], message, 0, nullptr, &reply);
    sd_bus_message_unref(message);
    if (ret < 0) {
        return false;
    }
    word = WordOf(reply);
    sd_bus_message_unref(reply);
    return true;
}

bool SdBusClient::Start(uint64_t token, const char *data, std::size_t size) {
    sd_bus_message *message = Message(0, data, size);
    const int ret = sd_bus_call_async(buses[0], nullptr, message, OnAnswer, new Started{this, token}, NO_LIMIT_USEC);
    sd_bus_message_unref(message);
    return ret >= 0;
}

int SdBusClient::OnAnswer(sd_bus_message *reply, void *context, sd_bus_error *) {
    const std::unique_ptr<Started> started(static_cast<Started *>(context));
    started->client->failed = started->client->failed || sd_bus_message_is_method_error(reply, nullptr) > 0;
    started->client->answered.push_back({started->token, WordOf(reply)});
    return 1;
}

bool SdBusClient::Await(std::vector<Answered> &answers, int64_t until) {
    while (answered.empty() && !failed && Now() < until) {
        const int processed = sd_bus_process(buses[0], nullptr);
        const auto left = static_cast<uint64_t>(std::max(int64_t{0}, until - Now()) / 1000);
        if (processed < 0 || (processed == 0 && sd_bus_wait(buses[0], until == NO_LIMIT ? NO_LIMIT_USEC : left) < 0)) {
            return false;
        }
    }
    answers.insert(answers.end(), answered.begin(), answered.end());
    answered.clear();
    return !failed;
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
