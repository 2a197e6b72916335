// What the tests between machines share.
#ifndef TARVO_TEST_BRIDGE_MACHINESTEST_H
#define TARVO_TEST_BRIDGE_MACHINESTEST_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bridge/Machines.h"
#include "support/Eventually.h"
#include "system/PeerProcess.h"

namespace tarvo_test {

// The state folder of a machine's bridges, on its /dev/shm.
constexpr char MACHINE_STATE[] = "/dev/shm/bridges";

// The machines of a test, and what each of them runs. A test that cannot have them is skipped.
class MachinesTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "machines are made by root only";
        }
        try {
            cable.emplace();
            front.emplace(*cable, "front");
            rear.emplace(*cable, "rear");
        } catch (const NoMachines &missing) {
            GTEST_SKIP() << missing.what();
        }
    }

    static std::unique_ptr<BridgeProcess> Bridge(const Machine &machine, const std::vector<std::string> &arguments,
                                                 const std::string &interface = "eth0") {
        std::vector<std::string> all{"--machine",      machine.Name(), "--interface", interface,
                                     "--state-folder", MACHINE_STATE,  "--lease",     "1500"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return std::make_unique<BridgeProcess>(&machine, all);
    }
    // A file with settings of the DDS on a machine, as its bridge finds it.
    static std::string DdsConfig(const Machine &machine, const std::string &settings) {
        std::ofstream(machine.SharedMemory() + "/dds.xml")
            << "<CycloneDDS><Domain Id=\"any\">" << settings << "</Domain></CycloneDDS>";
        return "/dev/shm/dds.xml";
    }
    // "camera" of the one machine on the other.
    void BridgeCamera() {
        exporter = Bridge(*front, {"--export", "camera"});
        importer = Bridge(*rear, {"--import", "camera"});
    }
    // Whether both are offered.
    bool BridgeCameraAndGps() {
        exporter = Bridge(*front, {"--export", "camera", "--export", "gps"});
        importer = Bridge(*rear, {"--import", "camera", "--import", "gps"});
        return Offers(*rear) && Offers(*rear, "gps");
    }
    static bool Offers(const Machine &machine, const std::string &name = "camera") {
        return Eventually([&] { return machine.Serves(name); });
    }
    static bool Withdraws(const Machine &machine, const std::string &name = "camera") {
        return Eventually([&] { return !machine.Serves(name); });
    }
    static std::unique_ptr<PeerProcess> Program(const Machine &machine, const char *program = SYSTEM_PEER_PROGRAM) {
        return std::make_unique<PeerProcess>(machine.Enter(), program);
    }
    // A new client's handle, also where its name is offered only now and then.
    static int Connect(PeerProcess &client, const std::string &more = "") {
        int fd = -1;
        Eventually([&] {
            fd = client.AskInt("client timeout=5000 target=camera self=viewer " + more);
            return fd > 0;
        });
        return fd;
    }

    std::optional<Cable> cable;
    std::optional<Machine> front;
    std::optional<Machine> rear;
    std::unique_ptr<BridgeProcess> exporter;
    std::unique_ptr<BridgeProcess> importer;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_MACHINESTEST_H
