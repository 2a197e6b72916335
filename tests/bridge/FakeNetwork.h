// A network in memory that does to what it carries what a test wants.
#ifndef TARVO_TEST_BRIDGE_FAKENETWORK_H
#define TARVO_TEST_BRIDGE_FAKENETWORK_H

#include <cstddef>
#include <deque>
#include <functional>
#include <map>

#include "core/Network.h"

namespace tarvo_test {

// What becomes of a bundle.
enum class Fate { ARRIVES, IS_LOST, COMES_TWICE, COMES_LATER };

class FakeNetwork;

// The cables between the bridges of a test. One thread.
class Cables {
public:
    using RunId = tarvo_bridge::RunId;
    using Bundle = tarvo_bridge::Bundle;

    // Carries what waits, and what comes of that. Whether there was anything.
    bool Deliver();
    // A run dies without a word: its bundles stop, and the others hear of it when Bury() is called.
    void Unplug(RunId run);
    void Bury(RunId run);
    // A bundle that nobody has sent.
    void Inject(const Bundle &bundle) {
        waiting.push_back(bundle);
        news();
    }
    // The others lose it and find it again, as after an interface was down; `alsoItself`: so does it them.
    void Rediscover(RunId run, bool alsoItself);

    std::function<Fate(const Bundle &)> fate = [](const Bundle &) { return Fate::ARRIVES; };
    // Whether Send() finds room.
    std::function<bool()> room = [] { return true; };
    bool takesLinks = true;
    // Told when something waits.
    std::function<void()> news = [] {};

private:
    friend class FakeNetwork;
    void Tell(RunId from, RunId to);

    std::map<RunId, FakeNetwork *> nodes;
    std::deque<Bundle> waiting;
    std::deque<Bundle> late;
    std::deque<std::function<void()>> told;
};

class FakeNetwork final : public tarvo_bridge::Network {
public:
    using RunId = tarvo_bridge::RunId;

    FakeNetwork(Cables &usedCables, RunId ownRun) : cables(usedCables), run(ownRun) { cables.nodes[run] = this; }
    ~FakeNetwork() override { cables.nodes.erase(run); }

    void SetListener(Listener *networkListener) { listener = networkListener; }

    bool Announce(const tarvo_bridge::Announcement &announcement) override;
    bool Connect(RunId peer) override {
        if (cables.takesLinks) {
            connected[peer] = true;
        }
        return cables.takesLinks;
    }
    void Disconnect(RunId peer) override { connected.erase(peer); }
    bool Send(const tarvo_bridge::Bundle &bundle) override;

private:
    friend class Cables;
    Cables &cables;
    const RunId run;
    Listener *listener = nullptr;
    bool plugged = true;
    std::map<RunId, bool> connected;
    tarvo_bridge::Announcement last;
};

inline void Cables::Tell(RunId from, RunId to) {
    told.push_back([this, from, to] {
        const auto source = nodes.find(from);
        const auto target = nodes.find(to);
        if (source != nodes.end() && target != nodes.end() && source->second->last.run != 0 &&
            source->second->plugged && target->second->plugged) {
            target->second->listener->OnAnnounced(source->second->last);
        }
    });
}

inline bool FakeNetwork::Announce(const tarvo_bridge::Announcement &announcement) {
    if (!cables.room()) {
        return false;
    }
    const bool first = last.run == 0;
    last = announcement;
    for (const auto &node : cables.nodes) {
        if (node.first != run) {
            cables.Tell(run, node.first);
            // Whoever was there before is known to one that comes.
            if (first) {
                cables.Tell(node.first, run);
            }
        }
    }
    cables.news();
    return true;
}

inline bool FakeNetwork::Send(const tarvo_bridge::Bundle &bundle) {
    if (connected.find(bundle.to) == connected.end() || !cables.room()) {
        return false;
    }
    if (plugged) {
        cables.waiting.push_back(bundle);
        cables.news();
    }
    return true;
}

inline bool Cables::Deliver() {
    if (told.empty() && waiting.empty()) {
        waiting.swap(late);
    }
    if (!told.empty()) {
        const auto telling = std::move(told.front());
        told.pop_front();
        telling();
        return true;
    }
    if (waiting.empty()) {
        return false;
    }
    Bundle bundle = std::move(waiting.front());
    waiting.pop_front();
    const Fate what = fate(bundle);
    if (what == Fate::COMES_LATER) {
        late.push_back(std::move(bundle));
        return true;
    }
    const auto to = nodes.find(bundle.to);
    if (what == Fate::IS_LOST || to == nodes.end() || !to->second->plugged || to->second->listener == nullptr) {
        return true;
    }
    Bundle copy = bundle;
    to->second->listener->OnBundle(copy);
    if (what == Fate::COMES_TWICE) {
        to->second->listener->OnBundle(bundle);
    }
    return true;
}

inline void Cables::Unplug(RunId run) { nodes.at(run)->plugged = false; }

inline void Cables::Bury(RunId run) {
    for (const auto &node : nodes) {
        if (node.first != run && node.second->listener != nullptr) {
            node.second->listener->OnRunLost(run);
        }
    }
}

inline void Cables::Rediscover(RunId run, bool alsoItself) {
    FakeNetwork &gone = *nodes.at(run);
    for (const auto &node : nodes) {
        if (node.first == run) {
            continue;
        }
        node.second->listener->OnRunLost(run);
        if (alsoItself) {
            gone.listener->OnRunLost(node.first);
        }
    }
    waiting.clear();
    gone.plugged = true;
    for (const auto &node : nodes) {
        if (node.first != run) {
            node.second->listener->OnAnnounced(gone.last);
            if (alsoItself) {
                gone.listener->OnAnnounced(node.second->last);
            }
        }
    }
}

} // namespace tarvo_test

#endif // TARVO_TEST_BRIDGE_FAKENETWORK_H
