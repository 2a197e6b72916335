// Many threads on one pipe: every frame arrives whole.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <random>

#include "PipeFixture.h"
#include "support/Sanitized.h"
#include "support/Threads.h"

namespace tarvo_test {
namespace {

constexpr uint32_t THREADS = 8;
const uint32_t FRAMES = static_cast<uint32_t>(Rounds(10000, 1000));
constexpr uint32_t SEQUENCE_BITS = 24;
constexpr uint32_t SEQUENCE_MASK = (1U << SEQUENCE_BITS) - 1;

// The frame that a thread sends as its `sequence`th: size and bytes follow from the id alone.
class Expected {
public:
    explicit Expected(uint32_t id) : random(id * 2654435761U + 1) {}

    void Fill(std::string &payload) {
        payload.resize(1 + random() % 4000);
        for (std::size_t i = 0; i < payload.size(); i += 4) {
            uint32_t word = static_cast<uint32_t>(random());
            for (std::size_t j = i; j < std::min(i + 4, payload.size()); ++j, word >>= 8) {
                payload[j] = static_cast<char>(word);
            }
        }
    }

private:
    std::minstd_rand random;
};

class PipeSendStressTest : public PipeTest {
protected:
    void SendAll(const Pipe &pipe, uint32_t thread) {
        const int room = open(writeFile.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        std::string payload;
        for (uint32_t sequence = 0; sequence < FRAMES; ++sequence) {
            const uint32_t id = thread << SEQUENCE_BITS | sequence;
            Expected(id).Fill(payload);
            const TarvoRequest request{id, payload.data(), static_cast<uint32_t>(payload.size())};
            int ret = 0;
            while ((ret = pipe->Send(request, static_cast<int>(thread))) == -EAGAIN) {
                pollfd entry = {room, POLLOUT, 0};
                ASSERT_EQ(poll(&entry, 1, 30000), 1);
            }
            ASSERT_EQ(ret, 0);
        }
        close(room);
    }

    void ReceiveAll() {
        std::array<uint32_t, THREADS> next{};
        std::string payload;
        for (uint32_t count = 0; count < THREADS * FRAMES; ++count) {
            // Checks magic, length and checksum.
            const RawFrame frame = peer.Receive();
            const uint32_t thread = frame.id >> SEQUENCE_BITS;
            ASSERT_LT(thread, THREADS);
            ASSERT_EQ(frame.id & SEQUENCE_MASK, next[thread]++);
            ASSERT_EQ(frame.timeout, static_cast<int>(thread));
            Expected(frame.id).Fill(payload);
            ASSERT_EQ(frame.payload == payload, true) << frame.id;
        }
        EXPECT_FALSE(peer.HasInput());
    }
};

TEST_F(PipeSendStressTest, FramesOfEightThreadsAreNeverTorn) {
    const Pipe pipe = OpenPipe(Attr(TARVO_MODE_SERVER));
    const Threads senders(THREADS, [&](int number) { SendAll(pipe, static_cast<uint32_t>(number)); });
    ReceiveAll();
}

} // namespace
} // namespace tarvo_test
