// What every event loop must be able to do with the descriptor of a tarvo::Loop. Each scene hangs, and ends with the
// watchdog, when the descriptor is not readable as long as there is something to do.
#ifndef TARVO_FOREIGN_LOOPS_SCENES_H
#define TARVO_FOREIGN_LOOPS_SCENES_H

#include <thread>
#include <vector>

#include "loop_handles/LoopHandles.h"

namespace tarvo_test {

// `Watch` runs the foreign loop. One callback is run for each time that it finds the descriptor readable.
template <typename Watch>
class ForeignLoopTest : public LoopHandlesTest {
protected:
    using LoopHandlesTest::Connected;
    using LoopHandlesTest::loop;
    using LoopHandlesTest::name;
    using LoopHandlesTest::service;

    void ServeSilently() { service = tarvo::Service::Open(loop, name, {}, tarvo::ServiceHandlers()); }

    static constexpr int FRAMES = 300;
};

TYPED_TEST_SUITE_P(ForeignLoopTest);

TYPED_TEST_P(ForeignLoopTest, EveryPendingFrameArrivesOneForEachWakeUp) {
    TypeParam program(this->loop, 1);
    int heard = 0;
    this->service = tarvo::Service::Open(this->loop, this->name, {},
                                         tarvo::ServiceHandlers().OnRequest([&](const tarvo::LinkRequest &) {
                                             if (++heard == this->FRAMES) {
                                                 program.Stop();
                                             }
                                         }));
    const tarvo::Link link = this->Connected();
    for (int i = 0; i < this->FRAMES; ++i) {
        ASSERT_FALSE(link.Send("frame"));
    }
    program.Run();
    EXPECT_EQ(heard, this->FRAMES);
}

TYPED_TEST_P(ForeignLoopTest, WhatEarlierDispatchesLeftOverIsFound) {
    TypeParam program(this->loop, 1);
    int heard = 0;
    this->service = tarvo::Service::Open(this->loop, this->name, {},
                                         tarvo::ServiceHandlers().OnRequest([&](const tarvo::LinkRequest &) {
                                             if (++heard == 100) {
                                                 program.Stop();
                                             }
                                         }));
    const tarvo::Link link = this->Connected();
    for (int i = 0; i < 100; ++i) {
        ASSERT_FALSE(link.Send("frame"));
    }
    // These read everything off the FIFO, so that no event of the kernel tells of the rest.
    while (heard < 50) {
        this->loop.Dispatch(1);
    }
    program.Run();
    EXPECT_EQ(heard, 100);
}

TYPED_TEST_P(ForeignLoopTest, DeadlinesWakeIt) {
    this->ServeSilently();
    TypeParam program(this->loop, 1);
    const tarvo::Link link = this->Connected();
    std::vector<int> ends;
    // The latest first: each must be waited for anew.
    for (const int ms : {30, 10, 20}) {
        ASSERT_FALSE(link.Call("x", std::chrono::milliseconds(ms), [&, ms](std::error_code error, std::string_view) {
            EXPECT_EQ(error, std::errc::timed_out);
            ends.push_back(ms);
            if (ends.size() == 3) {
                program.Stop();
            }
        }));
    }
    program.Run();
    EXPECT_EQ(ends, (std::vector<int>{10, 20, 30}));
}

TYPED_TEST_P(ForeignLoopTest, CallsThatWereCanceledOutsideEndInIt) {
    this->ServeSilently();
    TypeParam program(this->loop, 1);
    const tarvo::Link link = this->Connected();
    int ends = 0;
    for (int i = 0; i < 3; ++i) {
        int64_t call = 0;
        ASSERT_FALSE(link.Call(
            "x", tarvo::NO_LIMIT,
            [&](std::error_code error, std::string_view) {
                EXPECT_EQ(error, std::errc::operation_canceled);
                if (++ends == 3) {
                    program.Stop();
                }
            },
            call));
        ASSERT_FALSE(link.Cancel(call));
    }
    program.Run();
    EXPECT_EQ(ends, 3);
}

TYPED_TEST_P(ForeignLoopTest, PostsOfOtherThreadsWakeIt) {
    TypeParam program(this->loop, 1);
    int ran = 0;
    std::thread other([&] {
        for (int i = 0; i < 100; ++i) {
            EXPECT_FALSE(this->loop.Post([&] {
                if (++ran == 100) {
                    program.Stop();
                }
            }));
        }
    });
    program.Run();
    other.join();
    EXPECT_EQ(ran, 100);
}

TYPED_TEST_P(ForeignLoopTest, CallsInEachOthersCallbacksAreAnswered) {
    this->ServeEcho();
    TypeParam program(this->loop, 1);
    const tarvo::Link link = this->Connected();
    struct Chain {
        void Next() {
            EXPECT_FALSE(link.Call("x", PATIENCE, [this](std::error_code error, std::string_view) {
                EXPECT_FALSE(error);
                if (++answers < 200) {
                    Next();
                } else if (++finished == 8) {
                    program.Stop();
                }
            }));
        }
        const tarvo::Link &link;
        TypeParam &program;
        int &finished;
        int answers = 0;
    };
    int finished = 0;
    std::vector<Chain> chains(8, Chain{link, program, finished});
    for (Chain &chain : chains) {
        chain.Next();
    }
    program.Run();
    EXPECT_EQ(finished, 8);
}

TYPED_TEST_P(ForeignLoopTest, SenderHearsOfRoomInIt) {
    TypeParam program(this->loop, 1);
    std::size_t heard = 0;
    this->service = tarvo::Service::Open(
        this->loop, this->name, {}, tarvo::ServiceHandlers().OnRequest([&](const tarvo::LinkRequest &) { ++heard; }));
    bool opened = false;
    const tarvo::Link link =
        tarvo::Link::Connect(this->loop, this->name, this->As("sender"),
                             tarvo::LinkHandlers()
                                 .OnOpened([&](tarvo::LinkView, std::error_code) { opened = true; })
                                 .OnWritable([&](tarvo::LinkView) { program.Stop(); }));
    this->Until([&] { return opened; });
    const std::string payload(4000, 'x');
    std::size_t sent = 0;
    while (!link.Send(payload)) {
        ++sent;
    }
    program.Run();
    EXPECT_GT(heard, 0U);
    this->Until([&] { return heard == sent; });
}

REGISTER_TYPED_TEST_SUITE_P(ForeignLoopTest, EveryPendingFrameArrivesOneForEachWakeUp,
                            WhatEarlierDispatchesLeftOverIsFound, DeadlinesWakeIt, CallsThatWereCanceledOutsideEndInIt,
                            PostsOfOtherThreadsWakeIt, CallsInEachOthersCallbacksAreAnswered, SenderHearsOfRoomInIt);

} // namespace tarvo_test

#endif // TARVO_FOREIGN_LOOPS_SCENES_H
