#include "LibraryStubs.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "api/EnvManager.h"
#include "support/Interpose.h"

namespace tarvo_test {
namespace {

std::atomic<PipeOpens *> opensInForce{nullptr};
std::atomic<int> domainInForce{TARVO_DOMAIN_DP};
std::mutex prefixMutex;
std::string *prefixInForce = nullptr;

constexpr int FIRST_HANDLE = 101;
constexpr std::chrono::seconds LIMIT(30);

} // namespace

PipeOpens::PipeOpens() { opensInForce = this; }

PipeOpens::~PipeOpens() { opensInForce = nullptr; }

void PipeOpens::SetAction(std::function<int(const OpenedPipe &)> then) {
    const std::lock_guard<std::mutex> lock(mutex);
    action = std::move(then);
}

int PipeOpens::Record(const TarvoAttr &attr, TarvoPipeType type) {
    const OpenedPipe pipe{attr.targetName, attr.selfName != nullptr ? attr.selfName : "(null)", attr, type, gettid()};
    std::function<int(const OpenedPipe &)> then;
    int handle = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        opened.push_back(pipe);
        handle = FIRST_HANDLE + static_cast<int>(opened.size()) - 1;
        then = action;
        changed.notify_all();
    }
    const int result = then ? then(pipe) : 0;
    return result != 0 ? result : handle;
}

std::vector<OpenedPipe> PipeOpens::WaitFor(std::size_t count) {
    const RealTime real;
    std::unique_lock<std::mutex> lock(mutex);
    if (!changed.wait_for(lock, LIMIT, [&] { return opened.size() >= count; })) {
        ADD_FAILURE() << opened.size() << " of " << count << " pipes were opened";
    }
    return opened;
}

OpenedPipe PipeOpens::WaitForTarget(const std::string &targetName) {
    const RealTime real;
    std::unique_lock<std::mutex> lock(mutex);
    OpenedPipe found{};
    const bool came = changed.wait_for(lock, LIMIT, [&] {
        for (const OpenedPipe &pipe : opened) {
            if (pipe.targetName == targetName) {
                found = pipe;
                return true;
            }
        }
        return false;
    });
    EXPECT_TRUE(came) << targetName << " was not served";
    return found;
}

std::vector<std::string> PipeOpens::TargetNames(std::size_t count) {
    std::vector<std::string> names;
    for (const OpenedPipe &pipe : WaitFor(count)) {
        names.push_back(pipe.targetName);
    }
    return names;
}

std::size_t PipeOpens::Count() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return opened.size();
}

void PipeOpens::Forget() {
    const std::lock_guard<std::mutex> lock(mutex);
    opened.clear();
}

DomainStub::DomainStub(TarvoDomain domain) { domainInForce = domain; }

DomainStub::~DomainStub() { domainInForce = TARVO_DOMAIN_DP; }

PrefixStub::PrefixStub(const std::string &prefix) {
    const std::lock_guard<std::mutex> lock(prefixMutex);
    prefixInForce = new std::string(prefix);
}

PrefixStub::~PrefixStub() {
    const std::lock_guard<std::mutex> lock(prefixMutex);
    delete prefixInForce;
    prefixInForce = nullptr;
}

} // namespace tarvo_test

int TarvoPipeTypeOpen(TarvoAttr *attr, TarvoPipeType type) {
    tarvo_test::PipeOpens *const opens = tarvo_test::opensInForce;
    if (opens != nullptr) {
        return opens->Record(*attr, type);
    }
    const auto next = reinterpret_cast<decltype(&TarvoPipeTypeOpen)>(dlsym(RTLD_NEXT, "TarvoPipeTypeOpen"));
    return next(attr, type);
}

TarvoDomain GetCurrDomain(void) { return static_cast<TarvoDomain>(tarvo_test::domainInForce.load()); }

std::string EnvManager::FifoPrefix() {
    const std::lock_guard<std::mutex> lock(tarvo_test::prefixMutex);
    return tarvo_test::prefixInForce != nullptr ? *tarvo_test::prefixInForce : "/dev/shm/velm/tarvo/";
}
