#include "network/DdsNetwork.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "loop/Moments.h"

namespace tarvo_bridge {
namespace {

constexpr char RUN_TOPIC[] = "tarvo_bridge_v1_runs";
constexpr char BUNDLE_TOPIC[] = "tarvo_bridge_v1_bundles";
// Of what a reader keeps until the loop takes it, and a writer until it is acknowledged. Sessions bound their frames by
// themselves; this bounds what somebody else could make of it.
constexpr int32_t MOST_SAMPLES = 4096;
// With each return of a loan the DDS clears as many samples as were ever asked for at once.
constexpr uint32_t SAMPLES_AT_ONCE = 8;
// So often, at most, in one look.
constexpr int TAKES_AT_ONCE = 8;

struct QosDeleter {
    void operator()(dds_qos_t *qos) const { dds_delete_qos(qos); }
};
using Qos = std::unique_ptr<dds_qos_t, QosDeleter>;

struct ListenerDeleter {
    void operator()(dds_listener_t *listener) const { dds_delete_listener(listener); }
};

std::string Failed(const char *what, dds_return_t result) {
    return fmt::format("{}: {}", what, dds_strretcode(result));
}

std::string PartitionOf(RunId run) { return fmt::format("run-{:016x}", run); }

// Announcements: the last of each run, for whoever comes later too. No write waits, here or below.
Qos RunQos() {
    Qos qos(dds_create_qos());
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, 0);
    dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    dds_qset_ignorelocal(qos.get(), DDS_IGNORELOCAL_PARTICIPANT);
    return qos;
}

// Bundles: all of them, in order, for who is there.
Qos BundleQos() {
    Qos qos(dds_create_qos());
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, 0);
    dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
    dds_qset_resource_limits(qos.get(), MOST_SAMPLES, 1, MOST_SAMPLES);
    dds_qset_ignorelocal(qos.get(), DDS_IGNORELOCAL_PARTICIPANT);
    return qos;
}

Qos PartitionQos(RunId run) {
    Qos qos(dds_create_qos());
    dds_qset_partition1(qos.get(), PartitionOf(run).c_str());
    return qos;
}

void SetEvent(int fd) {
    const uint64_t one = 1;
    // What it says when the counter is full is of no interest: it is readable.
    [[maybe_unused]] const ssize_t ignored = write(fd, &one, sizeof(one));
}

// The descriptor's number is what the listener carries.
void OnDataAvailable(dds_entity_t /*reader*/, void *context) {
    SetEvent(static_cast<int>(reinterpret_cast<intptr_t>(context)));
}

std::string PluginFolder() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void *>(&dds_create_participant), &info) == 0 || info.dli_fname == nullptr) {
        return "";
    }
    const std::string library = info.dli_fname;
    return library.substr(0, library.rfind('/')) + "/libddsc0debian";
}

} // namespace

DdsNetwork::~DdsNetwork() {
    if (domain > 0) {
        dds_delete(domain);
    }
}

std::string DdsNetwork::Configure(const Settings &settings) {
    domain = dds_create_domain(settings.domain, DdsConfiguration(settings, PluginFolder()).c_str());
    return domain < 0 ? Failed("the DDS refuses its configuration", domain) : "";
}

std::string DdsNetwork::Open(RunId run, const Settings &settings) {
    fd = UniqueFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    if (fd.Get() < 0) {
        return fmt::format("eventfd: {}", std::strerror(errno));
    }
    std::string fault = Configure(settings);
    if (!fault.empty()) {
        return fault;
    }
    participant = dds_create_participant(settings.domain, nullptr, nullptr);
    if (participant < 0) {
        return Failed("the DDS cannot join the network", participant);
    }
    const std::string failed = OpenRuns();
    return failed.empty() ? OpenBundles(run) : failed;
}

std::string DdsNetwork::OpenRuns() {
    const Qos qos = RunQos();
    runTopic = dds_create_topic(participant, &tarvo_bridge_v1_Announcement_desc, RUN_TOPIC, nullptr, nullptr);
    if (runTopic < 0) {
        return Failed("the DDS refuses the topic of runs", runTopic);
    }
    const std::unique_ptr<dds_listener_t, ListenerDeleter> told(
        dds_create_listener(reinterpret_cast<void *>(static_cast<intptr_t>(fd.Get())))); // NOLINT
    dds_lset_data_available(told.get(), OnDataAvailable);
    runReader = dds_create_reader(participant, runTopic, qos.get(), told.get());
    runWriter = dds_create_writer(participant, runTopic, qos.get(), nullptr);
    const dds_entity_t worse = std::min(runReader, runWriter);
    return worse < 0 ? Failed("the DDS refuses to read and write runs", worse) : "";
}

std::string DdsNetwork::OpenBundles(RunId run) {
    bundleTopic = dds_create_topic(participant, &tarvo_bridge_v1_Bundle_desc, BUNDLE_TOPIC, nullptr, nullptr);
    if (bundleTopic < 0) {
        return Failed("the DDS refuses the topic of bundles", bundleTopic);
    }
    const dds_entity_t subscriber = dds_create_subscriber(participant, PartitionQos(run).get(), nullptr);
    const std::unique_ptr<dds_listener_t, ListenerDeleter> told(dds_create_listener(this));
    dds_lset_data_available(told.get(), OnBundlesThere);
    bundleReader = dds_create_reader(subscriber, bundleTopic, BundleQos().get(), told.get());
    return bundleReader < 0 ? Failed("the DDS refuses to read bundles", bundleReader) : "";
}

void DdsNetwork::OnBundlesThere(dds_entity_t /*reader*/, void *network) {
    auto &self = *static_cast<DdsNetwork *>(network);
    const MutexLock lock(self.takerMutex);
    if (self.taker == nullptr || !self.taker->TakeBundles()) {
        self.Wake();
    }
}

void DdsNetwork::SetTaker(BundleTaker *bundleTaker) {
    const MutexLock lock(takerMutex);
    taker = bundleTaker;
}

void DdsNetwork::Wake() const { SetEvent(fd.Get()); }

void DdsNetwork::Poll(Listener &listener) {
    uint64_t count = 0;
    // Before the looking, so that what comes during it is told again.
    [[maybe_unused]] const ssize_t ignored = read(fd.Get(), &count, sizeof(count));
    PollRuns(listener);
    bool more = true;
    for (int i = 0; i < TAKES_AT_ONCE && more; ++i) {
        more = PollBundles(listener, [] {});
    }
    if (more) {
        Wake();
    }
}

void DdsNetwork::PollRuns(Listener &listener) {
    std::array<void *, SAMPLES_AT_ONCE> samples{};
    std::array<dds_sample_info_t, SAMPLES_AT_ONCE> infos{};
    dds_return_t count = 0;
    while ((count = dds_take(runReader, samples.data(), infos.data(), samples.size(), SAMPLES_AT_ONCE)) > 0) {
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const auto &taken = *static_cast<const tarvo_bridge_v1_Announcement *>(samples[i]);
            Announcement announcement;
            if (infos[i].valid_data && TakeAnnouncement(taken, announcement)) {
                listener.OnAnnounced(announcement);
            }
            if (infos[i].instance_state != DDS_IST_ALIVE) {
                listener.OnRunLost(taken.run);
            }
        }
        dds_return_loan(runReader, samples.data(), count);
    }
}

// Whether there may be more.
bool DdsNetwork::PollBundles(Listener &listener, const std::function<void()> &told) {
    std::array<void *, SAMPLES_AT_ONCE> samples{};
    std::array<dds_sample_info_t, SAMPLES_AT_ONCE> infos{};
    const dds_return_t count = dds_take(bundleReader, samples.data(), infos.data(), samples.size(), SAMPLES_AT_ONCE);
    for (std::size_t i = 0; count > 0 && i < static_cast<std::size_t>(count); ++i) {
        if (!infos[i].valid_data) {
            continue;
        }
        Bundle bundle;
        if (TakeBundle(*static_cast<const tarvo_bridge_v1_Bundle *>(samples[i]), bundle)) {
            listener.OnBundle(bundle);
        } else if (strangers.MayTell(Now())) {
            Say(Level::WARNING, "something on the network speaks to this bridge as no bridge does; it is not heard");
        }
    }
    told();
    if (count > 0) {
        dds_return_loan(bundleReader, samples.data(), count);
    }
    return count == static_cast<dds_return_t>(SAMPLES_AT_ONCE);
}

bool DdsNetwork::Announce(const Announcement &announcement) {
    tarvo_bridge_v1_Announcement told{};
    told.run = announcement.run;
    told.version = announcement.version;
    std::strncpy(told.machine, announcement.machine.c_str(), sizeof(told.machine) - 1);
    const auto fill = [](const std::vector<std::string> &names, std::vector<std::array<char, 101>> &buffer,
                         dds_sequence_string100 &sequence) {
        buffer.resize(names.size());
        for (std::size_t i = 0; i < names.size(); ++i) {
            buffer[i].fill(0);
            names[i].copy(buffer[i].data(), buffer[i].size() - 1);
        }
        sequence._length = static_cast<uint32_t>(names.size());
        sequence._maximum = sequence._length;
        sequence._buffer = reinterpret_cast<char(*)[101]>(buffer.data()); // NOLINT
    };
    std::vector<std::array<char, 101>> services;
    std::vector<std::array<char, 101>> names;
    fill(announcement.services, services, told.services);
    fill(announcement.names, names, told.names);
    const dds_return_t ret = dds_write(runWriter, &told);
    if (ret < 0 && ret != refusal) {
        Say(Level::ERROR, "the network does not take what this bridge offers: {}; it is tried again",
            dds_strretcode(ret));
    }
    refusal = ret;
    return ret == 0;
}

bool DdsNetwork::Connect(RunId run) {
    if (outlets.find(run) != outlets.end()) {
        return true;
    }
    Outlet outlet{};
    outlet.publisher = dds_create_publisher(participant, PartitionQos(run).get(), nullptr);
    outlet.writer = dds_create_writer(outlet.publisher, bundleTopic, BundleQos().get(), nullptr);
    if (outlet.writer < 0) {
        if (refusedLinks.MayTell(Now())) {
            Say(Level::ERROR, "the DDS refuses a link: {}; it is tried again", dds_strretcode(outlet.writer));
        }
        dds_delete(outlet.publisher);
        return false;
    }
    outlets.emplace(run, outlet);
    return true;
}

void DdsNetwork::Disconnect(RunId run) {
    const auto found = outlets.find(run);
    if (found != outlets.end()) {
        dds_delete(found->second.publisher);
        outlets.erase(found);
    }
}

bool DdsNetwork::Send(const Bundle &bundle) {
    const auto found = outlets.find(bundle.to);
    if (found == outlets.end()) {
        return false;
    }
    return dds_write(found->second.writer, &sample.Of(bundle)) == DDS_RETCODE_OK;
}

} // namespace tarvo_bridge
