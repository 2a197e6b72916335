// The C++ handles as their users compile them: the second header alone, in their oldest language version and a newer.
#include <tarvo_server.hpp>

#include <unistd.h>

#include <cstdio>
#include <string>

using namespace std::chrono_literals;

int main() {
    tarvo::IgnoreSigpipe();
    const std::string name = "handles_" + std::to_string(getpid()) + "_" + std::to_string(__cplusplus);
    try {
        tarvo::Server::Start(tarvo::ServerOptions().As(name).OnRequest(
            [](const tarvo::Request &request) { return request.Text() + " back"; }));
        const tarvo::Pipe pipe = tarvo::Pipe::Connect(name, tarvo::Options().As("user").Timeout(10s));
        const bool right = pipe.Call("there and", 10s).Text() == "there and back" && pipe != tarvo::PipeView();
        TarvoExceptionHandler(0); // removes what is left in the FIFO directory
        tarvo::Finish();
        return right ? 0 : 1;
    } catch (const std::system_error &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
