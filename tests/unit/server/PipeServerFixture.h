#ifndef TARVO_UNIT_SERVER_PIPESERVERFIXTURE_H
#define TARVO_UNIT_SERVER_PIPESERVERFIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "LibraryStubs.h"
#include "server/PipeServer.h"
#include "support/LeakCheck.h"
#include "support/SyslogCapture.h"

class TarvoTable;

namespace tarvo_test {

// A server under a name of its own whose pipes are not opened but recorded, and that has been told of packets by hand.
class PipeServerTest : public LeakCheckedTest {
protected:
    PipeServerTest();
    ~PipeServerTest() override;

    int Start() { return server->Init(attr); }
    // Writes the bytes to the server's FIFO in one write.
    void Write(const std::string &bytes) const;
    // A connect packet of a client of this process.
    static std::string Connect(const std::string &client);
    // That client announces itself; the pipe that the server has opened to it.
    OpenedPipe ServeClient(const std::string &client);
    bool FileExists() const;
    // Number of threads that have the server's name, which a thread gives itself only after its start.
    static std::size_t ServerThreads();
    // Waits until that thread waits for something; for one that is about to lock a mutex.
    static bool Sleeps(pid_t thread);
    // Waits until there are no more threads than when the test began.
    bool NoServerThreads() const;

    // The open callback of `attr` runs this, once it is set.
    static void OnOpen(std::function<void(int, const std::string &)> action);

    const std::size_t threadsAtFirst = ThreadCount();
    const std::string name;
    const std::string path;
    SyslogCapture log;
    PipeOpens opens;
    TarvoServerAttr attr;
    std::shared_ptr<TarvoTable> table;
    std::optional<PipeServer> server;
};

} // namespace tarvo_test

#endif // TARVO_UNIT_SERVER_PIPESERVERFIXTURE_H
