// The functions of the header: arguments are checked and handed on. No exception leaves them.
#include "tarvo_loop.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "api/EnvManager.h"
#include "api/tarvo_check.h"
#include "fifo/velm_check.h"
#include "loop/Link.h"
#include "loop/Loop.h"
#include "loop/Service.h"
#include "tarvo_stats.h"

namespace {

constexpr int32_t NO_PROCESS = -1;
// No structure of any version will be larger: a greater size is that of a field which nobody has set.
constexpr uint32_t LARGEST_OPTIONS = 4096;

template <typename Body>
int WithoutThrow(Body body) {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

// A structure as a program has filled it that was built with this version of the header or another one, the size of
// whose structure stands in its first field. What a newer one may ask for beyond this version cannot be given.
template <typename Options>
bool Take(const Options *given, Options &taken) {
    uint32_t size = 0;
    std::memcpy(&size, given, sizeof(size));
    if (size < sizeof(taken) || size > LARGEST_OPTIONS) {
        return false;
    }
    std::memcpy(&taken, given, sizeof(taken));
    const char *const bytes = reinterpret_cast<const char *>(given);
    return std::all_of(bytes + sizeof(taken), bytes + size, [](char byte) { return byte == 0; });
}

bool TakeCallbacks(const TarvoLinkCallbacks *given, TarvoLinkCallbacks &taken) {
    taken = {};
    return given == nullptr || Take(given, taken);
}

bool IsNameValid(const char *name) {
    return name != nullptr && CheckInputName(name, strnlen(name, MAX_NAME_LENGTH + 1), MAX_NAME_LENGTH) == 0 &&
           !BlackListCheck(name);
}

const char *NameOf(const char *self) { return self != nullptr ? self : EnvManager::ProcName(); }

int CheckLoop(const TarvoLoop *loop) { return loop == nullptr ? -EINVAL : loop->Check(); }
int CheckLink(const TarvoLink *link) { return link == nullptr ? -EINVAL : link->Loop().Check(); }

int OpenLink(TarvoLoop &loop, const TarvoLinkOptions &options, const TarvoLinkCallbacks &callbacks, TarvoLink **link) {
    const bool announces = options.kind == TARVO_LINK_TO_SERVER;
    LinkSpec spec{NameOf(options.self),
                  options.target,
                  options.kind == TARVO_LINK_ARRANGED_SERVER,
                  announces,
                  options.gid,
                  NO_PROCESS,
                  options.timeoutMs,
                  options.context,
                  callbacks,
                  nullptr};
    if (announces) {
        spec.self += "_" + std::to_string(getpid());
    }
    return TarvoLink::Open(loop, std::move(spec), link);
}

} // namespace

int TarvoLoopCreate(TarvoLoop **loop) {
    if (loop == nullptr) {
        return -EINVAL;
    }
    return WithoutThrow([loop] {
        auto made = std::make_unique<TarvoLoop>();
        const int ret = made->Init();
        if (ret == 0) {
            *loop = made.release();
        }
        return ret;
    });
}

int TarvoLoopDestroy(TarvoLoop *loop) {
    if (loop == nullptr) {
        return 0;
    }
    const int ret = loop->Check();
    if (ret == 0) {
        loop->Destroy();
    }
    return ret;
}

int TarvoLoopFd(const TarvoLoop *loop) {
    const int ret = CheckLoop(loop);
    return ret != 0 ? ret : loop->Fd();
}

int TarvoLoopDispatch(TarvoLoop *loop, int max) {
    if (loop == nullptr || max < 1) {
        return -EINVAL;
    }
    const int ret = loop->CheckOutside();
    return ret != 0 ? ret : loop->Dispatch(max);
}

int TarvoLoopRun(TarvoLoop *loop, int timeoutMs) {
    if (loop == nullptr) {
        return -EINVAL;
    }
    const int ret = loop->CheckOutside();
    return ret != 0 ? ret : loop->Run(timeoutMs);
}

int TarvoLoopStop(TarvoLoop *loop) {
    if (loop == nullptr) {
        return -EINVAL;
    }
    if (TarvoLoop::IsInherited()) {
        return -ENOENT;
    }
    loop->Stop();
    return 0;
}

int TarvoLoopPost(TarvoLoop *loop, void (*function)(void *context), void *context) {
    if (loop == nullptr || function == nullptr) {
        return -EINVAL;
    }
    return TarvoLoop::IsInherited() ? -ENOENT : loop->Post(function, context);
}

int TarvoServiceOpen(TarvoLoop *loop, const TarvoServiceOptions *options, TarvoService **service) {
    if (loop == nullptr || options == nullptr || service == nullptr) {
        return -EINVAL;
    }
    const int refused = loop->Check();
    if (refused != 0) {
        return refused;
    }
    TarvoServiceOptions taken{};
    TarvoLinkCallbacks callbacks{};
    if (!Take(options, taken) || !TakeCallbacks(taken.callbacks, callbacks) || !IsNameValid(NameOf(taken.name))) {
        return -EINVAL;
    }
    return WithoutThrow([&] {
        auto made = std::make_unique<TarvoService>(*loop, taken, callbacks, NameOf(taken.name));
        const int ret = made->Open();
        if (ret == 0) {
            loop->Adopt(*made);
            *service = made.release();
        }
        return ret;
    });
}

int TarvoServiceClose(TarvoService *service) {
    if (service == nullptr) {
        return 0;
    }
    const int ret = service->Loop().Check();
    if (ret == 0) {
        service->Close();
    }
    return ret;
}

int TarvoLinkOpen(TarvoLoop *loop, const TarvoLinkOptions *options, TarvoLink **link) {
    if (loop == nullptr || options == nullptr || link == nullptr) {
        return -EINVAL;
    }
    const int refused = loop->Check();
    if (refused != 0) {
        return refused;
    }
    TarvoLinkOptions taken{};
    TarvoLinkCallbacks callbacks{};
    if (!Take(options, taken) || !TakeCallbacks(taken.callbacks, callbacks) ||
        static_cast<uint32_t>(taken.kind) > TARVO_LINK_ARRANGED_SERVER || !IsNameValid(taken.target) ||
        !IsNameValid(NameOf(taken.self))) {
        return -EINVAL;
    }
    return WithoutThrow([&] { return OpenLink(*loop, taken, callbacks, link); });
}

int TarvoLinkSend(TarvoLink *link, TarvoBytes payload) {
    const int ret = CheckLink(link);
    return ret != 0 ? ret : link->Send(payload);
}

int64_t TarvoLinkCall(TarvoLink *link, TarvoBytes payload, int timeoutMs, TarvoDone done, void *context) {
    if (done == nullptr) {
        return -EINVAL;
    }
    const int ret = CheckLink(link);
    return ret != 0 ? ret : link->Call(payload, timeoutMs, done, context);
}

int TarvoLinkCancel(TarvoLink *link, int64_t call) {
    const int ret = CheckLink(link);
    return ret != 0 ? ret : link->Cancel(call);
}

int TarvoLinkCallSync(TarvoLink *link, TarvoBytes payload, int timeoutMs, char *answer, uint32_t *size) {
    if (link == nullptr || size == nullptr || (answer == nullptr && *size != 0)) {
        return -EINVAL;
    }
    const int ret = link->Loop().CheckOutside();
    return ret != 0 ? ret : link->CallSync(payload, timeoutMs, answer, *size);
}

int TarvoLinkReply(TarvoLink *link, uint32_t request, TarvoBytes payload) {
    const int ret = CheckLink(link);
    return ret != 0 ? ret : link->Reply(request, payload);
}

int TarvoLinkHold(TarvoLink *link) {
    const int ret = CheckLink(link);
    if (ret == 0) {
        link->Hold();
    }
    return ret;
}

int TarvoLinkFlush(TarvoLink *link) {
    const int ret = CheckLink(link);
    return ret != 0 ? ret : link->Flush();
}

const char *TarvoLinkPeer(const TarvoLink *link) { return CheckLink(link) != 0 ? nullptr : link->Peer(); }

int TarvoLinkStats(const TarvoLink *link, TarvoStatsPipe *stats) {
    if (stats == nullptr) {
        return -EINVAL;
    }
    const int ret = CheckLink(link);
    return ret != 0 ? ret : link->CopyStats(*stats);
}

int TarvoLinkSetContext(TarvoLink *link, void *context) {
    const int ret = CheckLink(link);
    if (ret == 0) {
        link->SetContext(context);
    }
    return ret;
}

int TarvoLinkClose(TarvoLink *link) {
    if (link == nullptr) {
        return 0;
    }
    const int ret = link->Loop().Check();
    if (ret == 0) {
        link->Close();
    }
    return ret;
}
