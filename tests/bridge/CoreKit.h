// Two bridges on one thread that do as the test says.
#ifndef TARVO_TEST_BRIDGE_COREKIT_H
#define TARVO_TEST_BRIDGE_COREKIT_H

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "bridge/CoreParts.h"
#include "support/CountOf.h"

namespace tarvo_test {

class CoreTest : public testing::Test {
protected:
    using RunId = tarvo_bridge::RunId;
    static constexpr int64_t LEASE_MS = 1000;

    CoreNode &Start(RunId run, const std::string &machine, const std::vector<std::string> &exports,
                    const std::vector<tarvo_bridge::ImportRule> &imports, uint32_t sessions = 100) {
        tarvo_bridge::Plan plan;
        plan.run = run;
        plan.machine = machine;
        plan.exports = exports;
        plan.imports = imports;
        plan.limits = {window, LEASE_MS, sessions};
        CoreNode &node = nodes.Start(std::move(plan));
        Settle();
        return node;
    }
    // "camera" of machine front on machine rear, its server alive.
    void StartBoth(uint32_t sessions = 100) {
        exporter = &Start(1, "front", {"camera"}, {}, sessions);
        importer = &Start(2, "rear", {}, {{"camera", "", "camera"}}, sessions);
        exporter->bridge.OnServer("camera", true);
        Settle();
        ASSERT_EQ(importer->machine.offered.count("camera"), 1U);
    }
    void Settle() { nodes.Settle(); }
    void Pass(int64_t milliseconds) { nodes.Pass(milliseconds); }
    // A client of the importer, with both pipes open; they are the last of their machines then.
    void OpenClient(const std::string &name) {
        importer->bridge.OnClient("camera", {name, 0, 1});
        Settle();
        exporter->machine.pipes.back().listener->OnPipeOpen();
        Settle();
        importer->machine.pipes.back().listener->OnPipeOpen();
        Settle();
    }
    static void Send(CorePipe &pipe, const std::string &text) { pipe.listener->OnPipeFrame({1, 0, -1, text}); }
    // What somebody tells all of itself who has no bridge here.
    static tarvo_bridge::Announcement Told(RunId run, const std::string &machine,
                                           const std::vector<std::string> &services) {
        tarvo_bridge::Announcement announcement;
        announcement.run = run;
        announcement.machine = machine;
        announcement.services = services;
        announcement.names = services;
        return announcement;
    }

    void TearDown() override { EXPECT_FALSE(nodes.AnyMisused()) << "a pipe was used after its close"; }

    uint32_t window = 8;
    CoreNodes nodes;
    Cables &cables = nodes.cables;
    CoreNode *exporter = nullptr;
    CoreNode *importer = nullptr;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_COREKIT_H
