#include <tarvo_loop.hpp>
#if __cplusplus >= 202002L
#include <tarvo_coro.hpp>
#endif

#include <unistd.h>

using namespace std::chrono_literals;

// Succeeds when the loop's library and its headers are found, and a link over them finds nobody, as it should.
int main() {
    tarvo::IgnoreSigpipe();
    tarvo::Loop loop = tarvo::Loop::Create();
    std::error_code end;
    const tarvo::Link link =
        tarvo::Link::Connect(loop, "nobody_serves_here_" + std::to_string(getpid()), tarvo::LinkOptions().Timeout(1s),
                             tarvo::LinkHandlers().OnOpened([&](tarvo::LinkView, std::error_code error) {
                                 end = error;
                                 loop.Stop();
                             }));
    if (loop.Run(10s)) {
        return 1;
    }
    return end == std::errc::no_such_device_or_address ? 0 : 2;
}
