#include "RequestHooks.h"

#include <dlfcn.h>

#include <mutex>

#include "api/EnvManager.h"
#include "pipe/TarvoPipeImpl.h"

namespace tarvo_test {

namespace {

// Never destroyed: the library may still ask while statics end.
struct Hooks {
    std::mutex mutex;
    std::function<void()> beforeRemove;
    std::string runMode;
};

Hooks &State() {
    static auto *const hooks = new Hooks;
    return *hooks;
}

} // namespace

BeforeRemoveRequest::BeforeRemoveRequest(std::function<void()> action) {
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().beforeRemove = std::move(action);
}

BeforeRemoveRequest::~BeforeRemoveRequest() {
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().beforeRemove = nullptr;
}

void SetRunMode(const std::string &mode) {
    const std::lock_guard<std::mutex> lock(State().mutex);
    State().runMode = mode;
}

} // namespace tarvo_test

// ---- In front of the library's and the C library's ----

void TarvoPipeImpl::RemoveRequest(const TarvoRequest &req) {
    using Function = void (*)(TarvoPipeImpl *, const TarvoRequest &);
    static const auto next =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZN13TarvoPipeImpl13RemoveRequestERK12TarvoRequest"));
    std::function<void()> action;
    {
        const std::lock_guard<std::mutex> lock(tarvo_test::State().mutex);
        action.swap(tarvo_test::State().beforeRemove);
    }
    if (action) {
        action();
    }
    next(this, req);
}

std::string EnvManager::GetRunMode() {
    const std::lock_guard<std::mutex> lock(tarvo_test::State().mutex);
    return tarvo_test::State().runMode;
}
