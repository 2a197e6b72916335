#ifndef TARVO_SYSTEM_SERVERAGENT_H
#define TARVO_SYSTEM_SERVERAGENT_H

#include <string>
#include <vector>

#include "support/Process.h"

namespace tarvo_test {

// A child process that uses the library, as a server, as a client or as both, step by step as the test says. It answers
// a request by "re: " and the request's text. Make it before the test starts threads.
// Owns: the child, which it kills at the latest. Threads: one at a time; each method is one step. Ends: any time.
class ServerAgent {
public:
    ServerAgent();

    // The run mode in which a server waits two seconds for a client to open its side, and the one in which it waits for
    // hours: a machine with much else to do may need more than two seconds.
    static constexpr char USUAL_MODE[] = "0";
    static constexpr char PATIENT_MODE[] = "1";

    // TarvoCreateServer. The mode of the process is that of its first server.
    int Serve(const std::string &server, const std::string &mode = PATIENT_MODE);
    // The same, with the publication of the FIFO file held up until Resume, which yields the result.
    void ServeUpToPublication(const std::string &server);
    int Resume();
    // The names that the open callback has been told, once there are at least that many.
    std::vector<std::string> Clients(std::size_t atLeast);
    // TarvoCfgFinishServer; yields TarvoServiceIsExist.
    int Finish();
    // TarvoExceptionHandler.
    void Fail();

    // TarvoCreateClient.
    int Connect(const std::string &server, const std::string &self, int timeoutMs = 30000);
    // TarvoTimedRPCSync with 30 s; yields the answer, or the result code as text.
    std::string Call(int fd, const std::string &text);
    int ClosePipe(int fd);
    // Makes that many clients of one server wait, each on a thread of its own, for ReleaseSwarm, which lets all of them
    // connect and make a call at the same moment. SwarmResult waits for them and yields what went wrong.
    void PrepareSwarm(const std::string &server, const std::string &self, unsigned clients, int timeoutMs = 30000);
    void ReleaseSwarm();
    std::vector<std::string> SwarmResult();

    // The messages of the lines of level error and worse, up to now.
    std::vector<std::string> Errors();
    // Waits for a line of any level with that text.
    bool AwaitLine(const std::string &part);

    pid_t Pid() const { return child.Pid(); }
    void Kill() {
        child.Kill();
        child.Wait();
    }
    // Ends the process by exit; yields its exit code.
    int Exit();

private:
    std::string Ask(const std::string &command, const std::string &first = "", const std::string &second = "",
                    int number = 0, const std::string &third = "");

    ChildProcess child;
};

} // namespace tarvo_test

#endif // TARVO_SYSTEM_SERVERAGENT_H
