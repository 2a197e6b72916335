#include <tarvo.h>
#include <tarvo.hpp>

// Succeeds when the installed library and both of its headers are found and do what they say of themselves.
int main() {
    if (TarvoServiceIsExist() != 1) {
        return 1;
    }
    std::error_code error;
    const tarvo::Pipe pipe = tarvo::Pipe::Connect("nobody/serves/here", tarvo::Options(), error);
    if (error != std::errc::no_such_device_or_address) {
        return 2;
    }
    TarvoCfgFinishServer();
    return TarvoServiceIsExist();
}
