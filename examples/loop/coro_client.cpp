// coro_client [SERVER]: has the lines server count letters, from within a coroutine.
#include <coroutine>
#include <cstdio>
#include <exception>

#include "tarvo_coro.hpp"

using namespace std::chrono_literals;

namespace {

// The least that a coroutine needs. Programs that have a task type of some library use that.
struct Detached {
    struct promise_type {
        Detached get_return_object() noexcept { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() noexcept {}
        void unhandled_exception() noexcept { std::terminate(); }
    };
};

Detached CountLetters(tarvo::Loop &loop, std::string server, int &result) {
    tarvo::CoLink link = tarvo::CoLink::Connect(loop, server, tarvo::LinkOptions().As("coro_client").Timeout(5s));
    std::error_code failed = co_await link.Opened();
    long letters = 0;
    for (std::size_t length = 1; !failed && length <= 100; ++length) {
        const std::string line(length, 'x');
        const auto [error, answer] = co_await link.Call(line, 2s);
        failed = error;
        letters += failed ? 0 : std::stol(std::string(answer));
    }
    std::printf("coro_client: %s, %ld letters\n", failed ? failed.message().c_str() : "100 lines", letters);
    result = failed ? 1 : 0;
    loop.Stop();
}

} // namespace

int main(int argc, char **argv) try {
    tarvo::IgnoreSigpipe();
    tarvo::Loop loop = tarvo::Loop::Create();
    int result = 1;
    CountLetters(loop, argc > 1 ? argv[1] : "lines", result);
    return loop.Run() ? 1 : result;
} catch (const std::exception &error) {
    std::fprintf(stderr, "coro_client: %s\n", error.what());
    return 1;
}
