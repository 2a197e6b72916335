// What stands under a name that the loop uses, or takes its place while it works: as with the other engine.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "base/UniqueFd.h"
#include "faults/Hostile.h"
#include "loop/LoopFixture.h"
#include "support/Faults.h"
#include "support/Unprivileged.h"

namespace tarvo_test {
namespace {

// The functions of the loop.
class CastOfALoop final : public Cast {
public:
    int Create() override {
        const int begun = Open(TARVO_LINK_ARRANGED_SERVER);
        if (begun != 0) {
            return begun;
        }
        loop->RunWhileReadable();
        if (link->events.empty()) {
            // It waits for the remote, which comes now.
            reader = UniqueFd(::open(writeFile.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
            writer = UniqueFd(::open(readFile.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        }
        return Result();
    }
    int Join() override {
        const int begun = Open(TARVO_LINK_ARRANGED_CLIENT);
        return begun != 0 ? begun : Result();
    }
    int Serve() override {
        service.emplace(*loop);
        return service->Open(self);
    }
    int Connect() override {
        const int begun = Open(TARVO_LINK_TO_SERVER);
        return begun != 0 ? begun : Result();
    }
    void End() override { loop.reset(); }

private:
    int Open(TarvoLinkKind kind) {
        link.emplace(*loop);
        return link->Open(kind, remote, self, SHORT_OPEN_MS);
    }

    // What the open comes to.
    int Result() {
        if (!link->AwaitCount(1)) {
            return 0;
        }
        const int result = std::atoi(link->events.at(0).substr(7).c_str());
        return result == 0 ? 1 : result;
    }

    std::optional<TestLoop> loop{std::in_place};
    std::optional<Probe> link;
    std::optional<ServiceProbe> service;
    UniqueFd reader;
    UniqueFd writer;
};

class HostileLoopDirectory : public testing::Test {
protected:
    void SetUp() override { TARVO_SKIP_UNLESS_ROOT(); }
};

TEST_F(HostileLoopDirectory, WhateverStandsUnderANameIsDealtWithAsByTheOtherEngine) {
    CompareWithKeptTable([] { return std::make_unique<CastOfALoop>(); });
}

TEST_F(HostileLoopDirectory, GroupOfAFileOutsideStaysWhenAnAdoptedFifoBecomesALink) {
    EXPECT_EQ(TryInChild([] {
                  const Outside outside;
                  CastOfALoop cast;
                  std::string result;
                  {
                      const ScopedHook published(
                          Call::Link, [&](const CallInfo &) { EXPECT_EQ(::mkfifo(cast.readFile.c_str(), 0660), 0); },
                          Where().PathHas(cast.readFile));
                      const ScopedHook swap(
                          Call::Chown, [&](const CallInfo &) { ReplaceByLink(cast.readFile, outside.File()); },
                          Where().If([&](const CallInfo &info) { return cast.readFile == info.path; }));
                      result = TextOf(cast.Create());
                      EXPECT_EQ(swap.Hits(), 1U);
                  }
                  EXPECT_EQ(outside.Touched(), "");
                  EXPECT_GT(cast.Create(), 0);
                  cast.End();
                  return result;
              }),
              "−EACCES");
}

// What takes the place of a FIFO between the look at it and its opening.
enum class Swap { LinkToAFile, LinkToAFifo, HardLink, Device, Directory, Socket, Nothing };
constexpr Swap SWAPS[] = {Swap::LinkToAFile, Swap::LinkToAFifo, Swap::HardLink, Swap::Device,
                          Swap::Directory,   Swap::Socket,      Swap::Nothing};

void Put(Swap swap, const std::string &path, const Outside &outside) {
    ::unlink(path.c_str());
    switch (swap) {
    case Swap::LinkToAFile:
        return ReplaceByLink(path, outside.File());
    case Swap::LinkToAFifo:
        return ReplaceByLink(path, outside.Fifo());
    case Swap::HardLink:
        EXPECT_EQ(::link(outside.File().c_str(), path.c_str()), 0);
        return;
    case Swap::Device:
        EXPECT_EQ(mknod(path.c_str(), S_IFCHR | 0666, makedev(1, 3)), 0);
        return;
    case Swap::Directory:
        EXPECT_EQ(mkdir(path.c_str(), 0777), 0);
        return;
    case Swap::Socket:
        return MakeSocket(path);
    case Swap::Nothing:
        return;
    }
}

std::string SwapAtOpen(const std::string Cast::*name, int (Cast::*call)()) {
    const Outside outside;
    CastOfALoop cast;
    const UniqueFd reader(::open(outside.Fifo().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::string results;
    for (const Swap swap : SWAPS) {
        EXPECT_EQ(::mkfifo((cast.*name).c_str(), 0660), 0);
        {
            const OtherFiles others(cast, cast.*name);
            const ScopedHook swapped(
                Call::Open, [&](const CallInfo &) { Put(swap, cast.*name, outside); },
                Where().If([&](const CallInfo &info) { return cast.*name == info.path; }));
            results += TextOf((cast.*call)()) + " ";
            EXPECT_EQ(swapped.Hits(), 1U);
        }
        rmdir((cast.*name).c_str());
        RemoveOwnFifoFiles();
    }
    char byte = 0;
    EXPECT_LE(::read(reader.Get(), &byte, 1), 0);
    EXPECT_EQ(outside.Touched(true), "");
    cast.End();
    EXPECT_EQ(outside.Touched(true), "");
    return results;
}

TEST_F(HostileLoopDirectory, NothingIsWrittenToWhatTakesThePlaceOfAFifo) {
    const std::string refused = "−EACCES −EACCES −EACCES −EACCES −EACCES ";
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::writeFile, &Cast::Join); }), refused + "−EACCES −ETIMEDOUT ");
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::readFile, &Cast::Join); }), refused + "−EACCES −ETIMEDOUT ");
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::otherServer, &Cast::Connect); }), refused + "−ENXIO −ENXIO ");
}

} // namespace
} // namespace tarvo_test
