// A network in memory with a thread for each bridge, which brings what comes for it as that of a DDS does.
#ifndef TARVO_TEST_BRIDGE_THREADEDNETWORK_H
#define TARVO_TEST_BRIDGE_THREADEDNETWORK_H

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

#include "base/UniqueFd.h"
#include "core/Network.h"

namespace tarvo_test {

// One bridge's end of a cable between two. Threads: any for what is atomic; the bridge's; and its own.
class ThreadedNetwork final : public tarvo_bridge::Network, public tarvo_bridge::NetworkSource {
public:
    ThreadedNetwork() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)), carrier([this] { Carry(); }) {}
    ~ThreadedNetwork() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            ended = true;
        }
        news.notify_one();
        carrier.join();
    }

    // Before the bridges begin. Each lives until neither sends any more.
    static void Plug(ThreadedNetwork &one, ThreadedNetwork &other) {
        one.peer = &other;
        other.peer = &one;
    }

    bool Announce(const tarvo_bridge::Announcement &announcement) override {
        peer->Put(announcement);
        return true;
    }
    bool Connect(tarvo_bridge::RunId /*run*/) override {
        MustNotBeTheCarrier();
        return true;
    }
    void Disconnect(tarvo_bridge::RunId /*run*/) override { MustNotBeTheCarrier(); }
    bool Send(const tarvo_bridge::Bundle &bundle) override {
        peer->Put(bundle);
        return true;
    }

    int Fd() const override { return fd.Get(); }
    void Poll(Listener &listener) override {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t ignored = read(fd.Get(), &count, sizeof(count));
        std::deque<tarvo_bridge::Announcement> told;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            told.swap(announcements);
        }
        for (const tarvo_bridge::Announcement &announcement : told) {
            listener.OnAnnounced(announcement);
        }
        if (PollBundles(listener, [] {})) {
            Wake();
        }
    }
    bool PollBundles(Listener &listener, const std::function<void()> &told) override {
        std::deque<tarvo_bridge::Bundle> fetched;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            fetched.swap(bundles);
        }
        if (std::this_thread::get_id() == carrier.get_id()) {
            carriesSession = std::any_of(fetched.begin(), fetched.end(), IsOfSession);
        }
        for (tarvo_bridge::Bundle &bundle : fetched) {
            listener.OnBundle(bundle);
        }
        told();
        return false;
    }
    void SetTaker(tarvo_bridge::BundleTaker *bundleTaker) override {
        const std::lock_guard<std::mutex> lock(takerMutex);
        taker = bundleTaker;
    }

    bool HasTaker() {
        const std::lock_guard<std::mutex> lock(takerMutex);
        return taker != nullptr;
    }

    // How often the taker has taken what there was, and left it to the loop.
    std::atomic<int> taken{0};
    std::atomic<int> left{0};
    // How often it was brought sessions that begin or end. All of these it must leave.
    std::atomic<int> sessions{0};

private:
    static bool IsOfSession(const tarvo_bridge::Bundle &bundle) {
        return std::any_of(bundle.items.begin(), bundle.items.end(), [](const tarvo_bridge::Item &item) {
            return item.kind != tarvo_bridge::ItemKind::FRAME && item.kind != tarvo_bridge::ItemKind::CREDIT;
        });
    }

    void MustNotBeTheCarrier() const { EXPECT_NE(std::this_thread::get_id(), carrier.get_id()); }

    void Put(const tarvo_bridge::Announcement &announcement) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            announcements.push_back(announcement);
        }
        Wake();
    }
    void Put(const tarvo_bridge::Bundle &bundle) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            bundles.push_back(bundle);
            untold = true;
        }
        news.notify_one();
    }
    void Wake() const {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t ignored = write(fd.Get(), &one, sizeof(one));
    }

    void Carry() {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            news.wait(lock, [this] { return untold || ended; });
            if (ended) {
                return;
            }
            untold = false;
            lock.unlock();
            Tell();
            lock.lock();
        }
    }
    void Tell() {
        const std::lock_guard<std::mutex> lock(takerMutex);
        carriesSession = false;
        const bool all = taker != nullptr && taker->TakeBundles();
        ++(all ? taken : left);
        if (carriesSession) {
            ++sessions;
            EXPECT_FALSE(all) << "a session has begun or ended on the network's thread";
        }
        if (!all) {
            Wake();
        }
    }

    const UniqueFd fd;
    ThreadedNetwork *peer = nullptr;
    std::mutex mutex;
    std::condition_variable news;
    std::deque<tarvo_bridge::Announcement> announcements;
    std::deque<tarvo_bridge::Bundle> bundles;
    bool untold = false;
    bool ended = false;
    bool carriesSession = false; // what the taker has just been brought; the carrier's own
    std::mutex takerMutex;
    tarvo_bridge::BundleTaker *taker = nullptr;
    std::thread carrier;
};

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_THREADEDNETWORK_H
