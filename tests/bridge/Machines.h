// Machines as network namespaces on one cable, each with a /dev/shm of its own, and the programs that run on them.
#ifndef TARVO_TEST_BRIDGE_MACHINES_H
#define TARVO_TEST_BRIDGE_MACHINES_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tarvo_test {

// What went wrong; the test cannot run here then, and says so.
class NoMachines : public std::exception {
public:
    explicit NoMachines(std::string why) : reason(std::move(why)) {}
    const char *what() const noexcept override { return reason.c_str(); }

private:
    std::string reason;
};

// A process whose namespaces others enter. It ends with the test, and they with it.
class Holder {
public:
    // `prepare` runs in it; false gives up. Throws NoMachines.
    explicit Holder(int namespaces, const std::function<bool()> &prepare);
    ~Holder();
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;

    pid_t Pid() const { return pid; }
    // The output of a shell command in its namespaces. Throws NoMachines when it fails.
    std::string Run(const std::string &command) const;

private:
    pid_t pid = -1;
};

class Cable;

class Machine {
public:
    // Has the cable on eth0.
    Machine(Cable &cable, const std::string &machineName);

    const std::string &Name() const { return name; }
    // Puts another cable on another interface. Returns the address there.
    std::string Join(Cable &cable, const std::string &interface) const;
    // Its address on the first.
    const std::string &Address() const { return address; }
    // Puts the calling process on this machine: between fork and exec.
    std::function<bool()> Enter() const;
    bool Has(const std::string &fifo) const;
    // Whether the server of that name is read by somebody.
    bool Serves(const std::string &server) const;
    // How many FIFO files there are.
    std::size_t Files() const;
    std::string Run(const std::string &command) const { return holder.Run(command); }
    void Unplug() const { Run("ip link set eth0 down"); }
    void Plug() const { Run("ip link set eth0 up"); }
    // No file more than there are finds room in its /dev/shm, until that is emptied again.
    void FillSharedMemory() const;
    void EmptySharedMemory() const { Run("mount -o remount,nr_inodes=10000 /dev/shm; rm -f /dev/shm/filler*"); }
    // Where its /dev/shm is for others.
    std::string SharedMemory() const;

private:
    const std::string name;
    Holder holder;
    std::string address;
};

// The switch that machines are plugged into.
class Cable {
public:
    // Its machines have addresses that begin with these three numbers. One without multicast lets through the rest.
    explicit Cable(std::string addresses = "10.77.0", bool hasMulticast = true);

private:
    friend class Machine;
    friend class Tap;
    const std::string network;
    const bool multicast;
    Holder holder;
    int machines = 0;
};

// Hears all that a cable carries.
class Tap {
public:
    explicit Tap(const Cable &cable);
    ~Tap();
    Tap(const Tap &) = delete;
    Tap &operator=(const Tap &) = delete;

    // All packets since the last time, one behind the other.
    std::string Heard() const;

private:
    int socketFd = -1;
};

// A bridge on a machine.
class BridgeProcess {
public:
    // `machine` null: where the test itself is. Returns when it is at work, unless `isToFail`.
    BridgeProcess(const Machine *machine, std::vector<std::string> arguments, bool isToFail = false);
    ~BridgeProcess();
    BridgeProcess(const BridgeProcess &) = delete;
    BridgeProcess &operator=(const BridgeProcess &) = delete;

    pid_t Pid() const { return pid; }
    void Kill(int signo);
    void Stop() const; // until Go()
    void Go() const;
    // Ends it in the orderly way. Its exit code, or 128 plus the signal.
    int Quit();
    // Its exit code when it ends by itself.
    int Wait();
    // All that it has said so far.
    std::string Log() const;
    bool Says(const std::string &text) const;

private:
    void ReadLog() const;

    pid_t pid = -1;
    int log = -1;
    mutable std::string said;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_MACHINES_H
