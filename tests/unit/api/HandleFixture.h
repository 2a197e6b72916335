// What the tests of the C++ handles share.
#ifndef TARVO_TESTS_API_HANDLEFIXTURE_H
#define TARVO_TESTS_API_HANDLEFIXTURE_H

#include <chrono>
#include <optional>
#include <string>
#include <system_error>

#include "ApiFixture.h"
#include "tarvo.hpp"

namespace tarvo_test {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds PATIENCE{PIPE_OPEN_TIMEOUT_MS};

inline void ReplyEcho(const tarvo::Request &request) { request.Reply(request.Bytes()); }

inline void Ignore(const tarvo::Request &) {}

// Runs the call; the code that it throws, or none.
template <typename Call>
std::optional<std::error_code> Thrown(Call call) {
    try {
        call();
    } catch (const std::system_error &error) {
        return error.code();
    }
    return std::nullopt;
}

// The same, but what the exception says.
template <typename Call>
std::string Said(Call call) {
    try {
        call();
    } catch (const std::system_error &error) {
        return error.what();
    }
    return "";
}

class HandleTest : public ApiTest {
protected:
    // Both ends of a pipe; the near one creates the files and has the options' callback.
    void OpenBoth(tarvo::Options nearOptions, tarvo::Options farOptions = {}) {
        near = tarvo::Pipe::Open(remote, nearOptions.As(self).Mode(TARVO_MODE_SERVER));
        far = tarvo::Pipe::Open(self, farOptions.As(remote).Timeout(PATIENCE));
    }

    // A client of the server under the name `remote`.
    tarvo::Pipe Connect(const std::string &name) const {
        return tarvo::Pipe::Connect(remote, tarvo::Options().As(name).Timeout(PATIENCE));
    }

    // A server's file outlives it.
    void TearDown() override {
        tarvo::Finish();
        RemoveOwnFifoFiles();
    }

    // For the end of a test whose callbacks refer to its variables: waits for those that run.
    struct CallbacksEnd {
        ~CallbacksEnd() { tarvo::Finish(); }
    };

    tarvo::Pipe near;
    tarvo::Pipe far;
};

} // namespace tarvo_test

#endif // TARVO_TESTS_API_HANDLEFIXTURE_H
