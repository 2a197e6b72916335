// What the tests of the receive monitor share: a monitor, and pipes with their remotes played by hand.
#ifndef TARVO_TESTS_MONITOR_MONITORFIXTURE_H
#define TARVO_TESTS_MONITOR_MONITORFIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "monitor/DataMonitorImpl.h"
#include "support/Faults.h"
#include "unit/pipe/PipeEnvironment.h"
#include "unit/pipe/PipeFixture.h"

namespace tarvo_test {

constexpr int EXIT_ID = 1;
constexpr DataMonitorType NORMAL_LOCAL = 1;

class MonitorTest : public LeakCheckedTest {
protected:
    // A pipe in client mode on FIFOs of its own, its remote played by hand, read by the monitor.
    struct Line {
        Line(MonitorTest &test, int index, bool withCallback = true, const std::string &name = "s")
            : self(UniqueName(name)), remote(UniqueName("r")), peer(remote, self), handle(index) {
            TarvoAttr attr;
            attr.targetName = remote.c_str();
            attr.selfName = self.c_str();
            attr.timeout = 1000;
            if (withCallback) {
                attr.callback = [](int, TarvoRequest *) {};
            }
            peer.CreateFiles();
            pipe = std::make_shared<TarvoPipeImpl>(attr, test.observer);
            pipe->SetFd(handle);
            EXPECT_EQ(pipe->TimedOpen(1000), 0);
            peer.OpenWrite();
            readFd = test.observer.Calls(Report::PipeOpened).back().readFd;
        }

        std::string self;
        std::string remote;
        RawPeer peer;
        int handle;
        int readFd = -1;
        std::shared_ptr<TarvoPipeImpl> pipe;
    };

    // One that the monitor watches as long as it lives.
    struct WatchedLine : Line {
        WatchedLine(MonitorTest &test, int index) : Line(test, index), owner(test) {
            EXPECT_EQ(owner.monitor.Add(handle, readFd, pipe), 0);
        }
        ~WatchedLine() { EXPECT_EQ(owner.monitor.Remove(handle), 0); }
        WatchedLine(const WatchedLine &) = delete;
        WatchedLine &operator=(const WatchedLine &) = delete;

        MonitorTest &owner;
    };

    ~MonitorTest() override { monitor.Destroy(); }

    int Init(TarvoPriority priority = TARVO_PRIORITY_NORMAL, DataMonitorType type = NORMAL_LOCAL) {
        return monitor.Init(priority, EXIT_ID, type);
    }

    // What DataMonitorImpl::GetPipe wants of its callers is the business of the library's own.
    std::shared_ptr<TarvoPipeImpl> Registered(int index) NO_THREAD_SAFETY_ANALYSIS { return monitor.GetPipe(index); }

    FreshRestrainedLines fresh;
    SyslogCapture log;
    RecordingObserver observer;
    DataMonitorImpl monitor{"tarvo_monitor"};
};

} // namespace tarvo_test

#endif // TARVO_TESTS_MONITOR_MONITORFIXTURE_H
