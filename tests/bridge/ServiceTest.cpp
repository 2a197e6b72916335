// What a bridge tells the service manager that has started it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bridge/MachinesTest.h"
#include "support/Names.h"

namespace tarvo_test {
namespace {

// The end of the socket that a service manager has.
class NotifySocket {
public:
    NotifySocket() : path("/tmp/" + UniqueName("notify")), fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const timeval limit{30, 0};
        EXPECT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)), 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0) << path;
    }
    ~NotifySocket() {
        close(fd);
        std::remove(path.c_str());
    }
    NotifySocket(const NotifySocket &) = delete;
    NotifySocket &operator=(const NotifySocket &) = delete;

    const std::string &Path() const { return path; }
    // What it is told next; empty when that is nothing for long.
    std::string Next() const {
        std::array<char, 256> buffer;
        const ssize_t size = recv(fd, buffer.data(), buffer.size(), 0);
        return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : "";
    }

private:
    const std::string path;
    const int fd;
};

class ServiceTest : public MachinesTest {
protected:
    // A bridge started by the service manager; its watchdog's limit in microseconds, or none.
    void Start(const std::string &watchdog) {
        setenv("NOTIFY_SOCKET", manager.Path().c_str(), 1);
        if (!watchdog.empty()) {
            setenv("WATCHDOG_USEC", watchdog.c_str(), 1);
        }
        importer = Bridge(*rear, {"--import", "camera"});
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }
    // What it is told up to that, which comes last, and soon.
    std::vector<std::string> ToldUpTo(const std::string &last) const {
        std::vector<std::string> told;
        do {
            told.push_back(manager.Next());
        } while (!told.back().empty() && told.back() != last && told.size() < 100);
        return told;
    }

    const NotifySocket manager;
};

TEST_F(ServiceTest, ManagerIsToldOfTheStartTheWatchdogAndTheEnd) {
    Start("300000");
    const auto beginning = ToldUpTo("READY=1");
    ASSERT_EQ(beginning.back(), "READY=1");
    EXPECT_EQ(std::count(beginning.begin(), beginning.end(), "STOPPING=1"), 0);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(manager.Next(), "WATCHDOG=1") << i;
    }
    kill(importer->Pid(), SIGTERM);
    const auto end = ToldUpTo("STOPPING=1");
    EXPECT_EQ(end.back(), "STOPPING=1");
    EXPECT_EQ(importer->Wait(), 0);
}

TEST_F(ServiceTest, ManagerWithoutAWatchdogIsNotToldOfIt) {
    Start("");
    EXPECT_EQ(manager.Next(), "READY=1");
    EXPECT_EQ(importer->Quit(), 0);
    EXPECT_EQ(manager.Next(), "STOPPING=1");
}

} // namespace
} // namespace tarvo_test
