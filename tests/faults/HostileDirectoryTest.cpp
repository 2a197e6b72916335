// Something else than a FIFO of ours stands under a name that the library uses, or takes its place while it works.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "faults/Hostile.h"
#include "faults/Scenes.h"
#include "support/Faults.h"
#include "support/Unprivileged.h"

namespace tarvo_test {
namespace {

// The exported functions.
class CastOfThreads final : public Cast {
public:
    int Create() override {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_SERVER);
        return TarvoOpen(&attr);
    }
    int Join() override {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
        attr.timeout = SHORT_OPEN_MS;
        return TarvoOpen(&attr);
    }
    int Serve() override {
        TarvoServerAttr attr;
        attr.selfName = self.c_str();
        return TarvoCreateServer(&attr);
    }
    int Connect() override {
        TarvoAttr attr = MakeAttr(self, remote, TARVO_MODE_CLIENT);
        attr.timeout = SHORT_OPEN_MS;
        return TarvoCreateClient(&attr);
    }
    void End() override {
        TarvoExceptionHandler(SIGTERM);
        TarvoCfgFinishServer();
    }
};

class HostileDirectory : public testing::Test {
protected:
    void SetUp() override { TARVO_SKIP_UNLESS_ROOT(); }
};

TEST_F(HostileDirectory, WhateverStandsUnderANameIsReplacedOrRefusedAndNothingOutsideIsTouched) {
    CompareWithKeptTable([] { return std::make_unique<CastOfThreads>(); });
}

TEST_F(HostileDirectory, GroupOfAFileOutsideStaysWhenAnAdoptedFifoBecomesALink) {
    EXPECT_EQ(TryInChild([] {
                  const Outside outside;
                  CastOfThreads cast;
                  std::string result;
                  {
                      const ScopedHook published(
                          Call::Link, [&](const CallInfo &) { EXPECT_EQ(::mkfifo(cast.readFile.c_str(), 0660), 0); },
                          Where().PathHas(cast.readFile));
                      const ScopedHook swap(
                          Call::Chown, [&](const CallInfo &) { ReplaceByLink(cast.readFile, outside.File()); },
                          Where().If([&](const CallInfo &info) { return cast.readFile == info.path; }));
                      TarvoAttr attr = MakeAttr(cast.self, cast.remote, TARVO_MODE_SERVER);
                      attr.gid = STRANGER;
                      result = TextOf(TarvoOpen(&attr));
                      EXPECT_EQ(swap.Hits(), 1U);
                  }
                  EXPECT_EQ(outside.Touched(), "");
                  EXPECT_GT(cast.Create(), 0);
                  TarvoCfgFinishServer();
                  return result;
              }),
              "−EACCES");
}

// Between the look at the name and the opening of it, a link takes the place of a FIFO.
std::string SwapAtOpen(const std::string Cast::*name, int (Cast::*call)()) {
    const Outside outside;
    CastOfThreads cast;
    const int reader = ::open(outside.Fifo().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::string results;
    for (const std::string &target : {outside.File(), outside.Fifo()}) {
        RemoveOwnFifoFiles();
        EXPECT_EQ(::mkfifo((cast.*name).c_str(), 0660), 0);
        const OtherFiles others(cast, cast.*name);
        const ScopedHook swap(
            Call::Open, [&](const CallInfo &) { ReplaceByLink(cast.*name, target); }, Where().Path(cast.*name));
        results += TextOf((cast.*call)()) + " ";
        EXPECT_EQ(swap.Hits(), 1U);
    }
    char byte = 0;
    EXPECT_LE(::read(reader, &byte, 1), 0);
    close(reader);
    EXPECT_EQ(outside.Touched(true), "");
    TarvoCfgFinishServer();
    EXPECT_EQ(outside.Touched(true), "");
    RemoveOwnFifoFiles();
    return results;
}

TEST_F(HostileDirectory, NothingIsWrittenThroughALinkThatTakesThePlaceOfAFifo) {
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::writeFile, &Cast::Join); }), "−EACCES −EACCES ");
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::readFile, &Cast::Join); }), "−EACCES −EACCES ");
    EXPECT_EQ(TryInChild([] { return SwapAtOpen(&Cast::otherServer, &Cast::Connect); }), "−EACCES −EACCES ");
}

TEST_F(HostileDirectory, LinksInThePlaceOfFilesToRemoveAreRemovedAndNotFollowed) {
    for (const bool emergency : {false, true}) {
        EXPECT_EQ(TryInChild([emergency] {
                      const Outside outside;
                      CastOfThreads cast;
                      const int fd = cast.Create();
                      EXPECT_EQ(cast.Serve(), 0);
                      ReplaceByLink(cast.writeFile, outside.File());
                      ReplaceByLink(cast.readFile, outside.Fifo());
                      ReplaceByLink(cast.ownServer, outside.File());
                      if (emergency) {
                          TarvoExceptionHandler(SIGTERM);
                          EXPECT_TRUE(OwnFifoFiles().empty());
                      }
                      EXPECT_EQ(TarvoClosePipe(fd), 0);
                      EXPECT_EQ(OwnFifoFiles().size(), emergency ? 0U : 1U);
                      TarvoExceptionHandler(SIGTERM);
                      TarvoCfgFinishServer();
                      return outside.Touched();
                  }),
                  "");
    }
}

} // namespace
} // namespace tarvo_test
