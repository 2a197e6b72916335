#include "local/ImportedService.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <utility>

#include "api/EnvManager.h"
#include "api/tarvo_check.h"
#include "core/Report.h"
#include "fifo/velm_check.h"
#include "loop/Files.h"

namespace tarvo_bridge {

ImportedService::ImportedService(TarvoLoop &owner, std::string serviceName, LocalSide::Listener &clientListener)
    : loop(owner), name(std::move(serviceName)), listener(clientListener) {}

ImportedService::~ImportedService() { WorkQueue::Remove(*this); }

int ImportedService::Open() {
    int ret = file.Open(EnvManager::FifoPrefix() + name, TARVO_LOOP_ANY_GROUP, false);
    if (ret != 0) {
        return ret;
    }
    ret = loop.Events().Add(file.ReadFd(), EPOLLIN, *this, 0, watch);
    if (ret != 0) {
        file.Close();
    }
    return ret;
}

bool ImportedService::HasFile() const { return StandsUnder(file.ReadFd(), EnvManager::FifoPrefix() + name); }

void ImportedService::Close() {
    closed = true;
    OnLoopDestroyed();
    WorkQueue::Remove(*this);
    loop.Bury(*this);
}

void ImportedService::OnLoopDestroyed() {
    loop.Events().Remove(watch);
    file.Close();
}

void ImportedService::OnEvents(uint32_t /*what*/, uint32_t /*events*/) {
    char *const bytes = loop.Scratch();
    const ssize_t count = read(file.ReadFd(), bytes, TarvoLoop::SCRATCH_SIZE);
    if (count <= 0) {
        return;
    }
    packets.Feed(bytes, static_cast<std::size_t>(count));
    ConnectPacket packet{};
    for (auto found = packets.Next(packet); found != PacketReader::Found::NOTHING; found = packets.Next(packet)) {
        // Whoever sends the other kind wants to end the server. This one ends when nobody carries the name.
        if (found == PacketReader::Found::CONNECT) {
            TakePacket(packet);
        }
    }
    int left = 0;
    if (ioctl(file.ReadFd(), FIONREAD, &left) == 0 && left == 0) {
        packets.EndOfRead();
    }
    loop.Queue(*this);
}

void ImportedService::TakePacket(const ConnectPacket &packet) {
    LocalClient client{std::string(packet.name), packet.gid, packet.pid};
    if (CheckInputName(client.name.c_str(), client.name.size(), PIPE_SERVER_MAX_CLIENT_NAME) != 0 ||
        BlackListCheck(client.name.c_str())) {
        Say(Level::WARNING, "a client of '{}' has a name that no client may have; it is left alone", name);
        return;
    }
    clients.push_back(std::move(client));
}

bool ImportedService::Serve(int /*share*/, int &ran) {
    while (!closed && !clients.empty()) {
        const LocalClient client = std::move(clients.front());
        clients.pop_front();
        ++ran;
        listener.OnClient(name, client);
    }
    return false;
}

} // namespace tarvo_bridge
