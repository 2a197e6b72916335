// The finder of frames in large reads: garbage, cut wherever a read may end.
//
// Input: one byte that says how the stream is cut and read, then the stream. A reader of its own tells from the whole
// stream what must be delivered: exactly that is found in the slices, in order.
#include <algorithm>
#include <memory>
#include <random>
#include <tuple>

#include "fuzz/FrameModel.h"
#include "fuzz/Target.h"
#include "loop/FrameReader.h"

namespace tarvo_test {
namespace {

using Delivered = std::tuple<uint32_t, uint32_t, int32_t, int64_t, std::string>;

// Reads slices and stops in between now and then, as a loop does that has other things to do.
class Slices {
public:
    explicit Slices(unsigned seed) : random(seed), mean(std::size_t{1} << seed % 13) {}

    std::vector<Delivered> Read(const std::string &stream) {
        for (std::size_t at = 0; at < stream.size();) {
            const std::size_t size = std::min<std::size_t>(stream.size() - at, 1 + random() % (2 * mean));
            ReadSlice(stream.substr(at, size));
            at += size;
        }
        return std::move(delivered);
    }

private:
    void ReadSlice(const std::string &bytes) {
        // Of that size exactly, so that a look behind the end is found.
        std::unique_ptr<char[]> slice(new char[bytes.size()]);
        bytes.copy(slice.get(), bytes.size());
        reader.Feed(slice.get(), bytes.size());
        for (Frame frame{}; Look() && reader.Next(frame);) {
            delivered.emplace_back(frame.id, frame.type, frame.timeout, frame.writeStartTime,
                                   std::string(frame.data, frame.size));
            if (slice != nullptr && random() % 8 == 0) {
                Require(reader.Stash(), "there is memory for what is unread");
                slice.reset();
            }
        }
        Require(!reader.HasUnread(), "what is left of a slice is kept");
    }

    // Looking first, or not, changes nothing.
    bool Look() {
        if (random() % 2 == 0) {
            return true;
        }
        Require(reader.HasNext() == reader.HasNext(), "looking for a frame takes none");
        return reader.HasNext();
    }

    std::minstd_rand random;
    const std::size_t mean;
    const FrameOrigin origin{"garbage", -1};
    FrameReader reader{origin};
    std::vector<Delivered> delivered;
};

} // namespace
} // namespace tarvo_test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    using namespace tarvo_test;
    Bytes input(data, size);
    const unsigned seed = input.Byte();
    const std::string stream = input.Rest();
    std::vector<Delivered> expected;
    ReadAsDocumented(stream, [&expected](const RawFrame &head, const std::string &payload) {
        expected.emplace_back(head.id, head.type, head.timeout, head.writeStartTime, payload);
    });
    Require(Slices(seed).Read(stream) == expected, "the slices of a stream hold the frames of the whole");
    return 0;
}
