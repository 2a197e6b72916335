#include "bridge/Machines.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "support/Eventually.h"

namespace tarvo_test {
namespace {

// What a shell command prints, and its status.
int RunShell(const std::string &command, std::string &output) {
    FILE *const pipe = popen((command + " 2>&1").c_str(), "re");
    if (pipe == nullptr) {
        return -1;
    }
    std::array<char, 4096> buffer;
    std::size_t count = 0;
    while ((count = fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        output.append(buffer.data(), count);
    }
    return pclose(pipe);
}

bool PrepareMachine() {
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/dev/shm", "tmpfs", 0, "mode=1777") == 0 && mkdir("/dev/shm/velm", 0755) == 0 &&
           mkdir("/dev/shm/velm/tarvo", 0777) == 0 && chmod("/dev/shm/velm/tarvo", 01777) == 0;
}

bool EnterNamespace(pid_t pid, const char *kind, int type) {
    const int fd = open(("/proc/" + std::to_string(pid) + "/ns/" + kind).c_str(), O_RDONLY | O_CLOEXEC);
    const bool entered = fd >= 0 && setns(fd, type) == 0;
    close(fd);
    return entered;
}

} // namespace

Holder::Holder(int namespaces, const std::function<bool()> &prepare) {
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
        throw NoMachines("pipe2");
    }
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const bool good = unshare(namespaces) == 0 && prepare();
        const char verdict = good ? 'y' : 'n';
        if (write(ready[1], &verdict, 1) != 1 || !good) {
            _exit(1);
        }
        for (;;) {
            pause();
        }
    }
    close(ready[1]);
    char verdict = 'n';
    const bool good = read(ready[0], &verdict, 1) == 1 && verdict == 'y';
    close(ready[0]);
    if (!good) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        throw NoMachines("this kernel or user makes no namespaces for network and mounts");
    }
}

Holder::~Holder() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

std::string Holder::Run(const std::string &command) const {
    std::string output;
    const std::string whole = "nsenter -t " + std::to_string(pid) + " -n -m sh -c '" + command + "'";
    if (RunShell(whole, output) != 0) {
        throw NoMachines(command + ": " + output);
    }
    return output;
}

Cable::Cable(std::string addresses, bool hasMulticast)
    : network(std::move(addresses)), multicast(hasMulticast), holder(CLONE_NEWNET, [] { return true; }) {
    holder.Run("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up");
}

Machine::Machine(Cable &cable, const std::string &machineName)
    : name(machineName), holder(CLONE_NEWNET | CLONE_NEWNS, PrepareMachine) {
    Run("ip link set lo up");
    address = Join(cable, "eth0");
}

std::string Machine::Join(Cable &cable, const std::string &interface) const {
    const std::string number = std::to_string(++cable.machines);
    const std::string port = "p" + number;
    cable.holder.Run("ip link add " + port + " type veth peer name " + interface + " netns " +
                     std::to_string(holder.Pid()) + " && ip link set " + port + " master br0 up" +
                     (cable.multicast ? "" : " && ip link set " + port + " type bridge_slave mcast_flood off"));
    std::string joined = cable.network + "." + number;
    Run("ip addr add " + joined + "/24 dev " + interface + " && ip link set " + interface + " up");
    return joined;
}

// A socket stays in the namespace where it was made.
Tap::Tap(const Cable &cable) {
    const int own = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int room = 1 << 24;
    const bool good = own >= 0 && EnterNamespace(cable.holder.Pid(), "net", CLONE_NEWNET) &&
                      (socketFd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(ETH_P_ALL))) >= 0 &&
                      setsockopt(socketFd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) == 0;
    const bool back = own >= 0 && setns(own, CLONE_NEWNET) == 0;
    close(own);
    if (!good || !back) {
        throw std::runtime_error("the cable cannot be tapped");
    }
}

Tap::~Tap() { close(socketFd); }

std::string Tap::Heard() const {
    std::string heard;
    std::array<char, 65536> packet;
    ssize_t count = 0;
    while ((count = recv(socketFd, packet.data(), packet.size(), 0)) > 0) {
        heard.append(packet.data(), static_cast<std::size_t>(count));
    }
    return heard;
}

std::function<bool()> Machine::Enter() const {
    const pid_t pid = holder.Pid();
    return [pid] { return EnterNamespace(pid, "net", CLONE_NEWNET) && EnterNamespace(pid, "mnt", CLONE_NEWNS); };
}

std::string Machine::SharedMemory() const { return "/proc/" + std::to_string(holder.Pid()) + "/root/dev/shm"; }

// What bridges write at the same moment, and then rename, must not leave room behind.
void Machine::FillSharedMemory() const {
    const bool full = Eventually([this] {
        return Run("used=$(($(stat -f -c %c /dev/shm) - $(stat -f -c %d /dev/shm)));"
                   "mount -o remount,nr_inodes=$used /dev/shm 2>/dev/null &&"
                   "while touch /dev/shm/filler$((n += 1)) 2>/dev/null; do :; done;"
                   "ls /dev/shm/bridges/*.new >/dev/null 2>&1 || stat -f -c %d /dev/shm") == "0\n";
    });
    if (!full) {
        throw std::runtime_error("shared memory cannot be filled");
    }
}

bool Machine::Has(const std::string &fifo) const {
    return access((SharedMemory() + "/velm/tarvo/" + fifo).c_str(), F_OK) == 0;
}

bool Machine::Serves(const std::string &server) const {
    const std::string path = SharedMemory() + "/velm/tarvo/" + server;
    const int fd = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    close(fd);
    return fd >= 0;
}

std::size_t Machine::Files() const {
    const std::filesystem::directory_iterator files(SharedMemory() + "/velm/tarvo");
    return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

BridgeProcess::BridgeProcess(const Machine *machine, std::vector<std::string> arguments, bool isToFail) {
    log = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    arguments.insert(arguments.begin(), TARVO_BRIDGE_PROGRAM);
    std::vector<char *> words;
    for (std::string &argument : arguments) {
        words.push_back(argument.data());
    }
    words.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (dup2(log, STDERR_FILENO) >= 0 && dup2(log, STDOUT_FILENO) >= 0 &&
            (machine == nullptr || machine->Enter()())) {
            execv(words[0], words.data());
        }
        _exit(127);
    }
    if (!isToFail && !Eventually([this] { return Says("at work"); })) {
        throw std::runtime_error("the bridge does not start: " + Log());
    }
}

BridgeProcess::~BridgeProcess() {
    Kill(SIGKILL);
    close(log);
}

void BridgeProcess::Kill(int signo) {
    if (pid > 0) {
        kill(pid, signo);
        Wait();
    }
}

void BridgeProcess::Stop() const {
    kill(pid, SIGSTOP);
    waitpid(pid, nullptr, WUNTRACED);
}

void BridgeProcess::Go() const { kill(pid, SIGCONT); }

int BridgeProcess::Quit() {
    kill(pid, SIGTERM);
    return Wait();
}

int BridgeProcess::Wait() {
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string BridgeProcess::Log() const {
    ReadLog();
    return said;
}

bool BridgeProcess::Says(const std::string &text) const { return Log().find(text) != std::string::npos; }

void BridgeProcess::ReadLog() const {
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = pread(log, buffer.data(), buffer.size(), static_cast<off_t>(said.size()))) > 0) {
        said.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

} // namespace tarvo_test
