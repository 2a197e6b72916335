// What the tests of the loop's C++ handles share.
#ifndef TARVO_LOOP_HANDLES_H
#define TARVO_LOOP_HANDLES_H

#include <gtest/gtest.h>
#include <poll.h>

#include <optional>
#include <string>
#include <system_error>

#include "support/LeakCheck.h"
#include "support/Names.h"
#include "tarvo_loop.hpp"

namespace tarvo_test {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds PATIENCE{30000};

// Counts the objects of a kind: what was copied, moved or left behind is seen.
class Counted {
public:
    explicit Counted(int &alive) : count(&alive) { ++*count; }
    Counted(const Counted &other) : count(other.count) { ++*count; }
    Counted &operator=(const Counted &) = delete;
    ~Counted() { --*count; }

private:
    int *count;
};

// The code that the call throws, or none.
template <typename Call>
std::optional<std::error_code> Thrown(Call call) {
    try {
        call();
    } catch (const std::system_error &error) {
        return error.code();
    }
    return std::nullopt;
}

// A loop with a service, to which tests open links of the same loop.
class LoopHandlesTest : public LeakCheckedTest {
protected:
    LoopHandlesTest() {
        FifoDirectory();
        tarvo::IgnoreSigpipe();
    }

    // Dispatches one callback after another, and waits on the descriptor for each, until `condition` holds.
    template <typename Condition>
    void Until(Condition condition) {
        while (!condition()) {
            pollfd ready{loop.Fd(), POLLIN, 0};
            ASSERT_EQ(poll(&ready, 1, static_cast<int>(PATIENCE.count())), 1) << "nothing happens any more";
            loop.Dispatch(1);
        }
    }
    // Until nothing is left to do.
    void Drain() {
        for (pollfd ready{loop.Fd(), POLLIN, 0}; poll(&ready, 1, 0) == 1;) {
            loop.Dispatch(1);
        }
    }

    void ServeEcho() {
        service = tarvo::Service::Open(
            loop, name, {},
            tarvo::ServiceHandlers().OnRequest([](const tarvo::LinkRequest &request) { return request.Bytes(); }));
    }

    static tarvo::LinkOptions As(const std::string &self) {
        return tarvo::LinkOptions().As(NameTag() + self).Timeout(PATIENCE);
    }

    // An open link to the service.
    tarvo::Link Connected(const std::string &self = "client") {
        std::optional<std::error_code> result;
        tarvo::Link link = tarvo::Link::Connect(
            loop, name, As(self),
            tarvo::LinkHandlers().OnOpened([&result](tarvo::LinkView, std::error_code error) { result = error; }));
        Until([&] { return result.has_value(); });
        EXPECT_EQ(*result, std::error_code());
        return link;
    }

    const std::string name = UniqueName("service");
    tarvo::Loop loop = tarvo::Loop::Create();
    tarvo::Service service;
};

} // namespace tarvo_test

#endif // TARVO_LOOP_HANDLES_H
