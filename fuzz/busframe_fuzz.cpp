// Feeds arbitrary byte streams to the bus's receive path as the broker and the
// peer library run it: split into frames, parse each frame's JSON (depth- and
// size-limited) and classify it as a request, notification or response. Checks
// that the decoder never hands out a frame longer than its limit, that what it
// consumes adds up, and that every parsed value survives a compact round trip.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Frame.h"
#include "JsonText.h"
#include "Protocol.h"
#include "support/Check.h"

namespace {

constexpr std::size_t kLimit = 4096;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    vela::FrameDecoder decoder(kLimit);
    // Feed in two pieces, as a stream arrives: the split must not matter.
    const std::size_t half = size / 2;
    decoder.feed(reinterpret_cast<const char*>(data), half);
    bool fedAll = false;
    std::size_t consumed = 0;
    for (;;) {
        std::string_view payload;
        vela::FrameDecoder::Result r = decoder.next(payload);
        if (r == vela::FrameDecoder::Result::kNeedMore) {
            if (fedAll)
                break;
            decoder.feed(reinterpret_cast<const char*>(data) + half, size - half);
            fedAll = true;
            continue;
        }
        if (r == vela::FrameDecoder::Result::kBadLength) {
            FUZZ_CHECK(decoder.badLength() == 0 || decoder.badLength() > kLimit);
            break;  // the connection ends here
        }
        FUZZ_CHECK(!payload.empty() && payload.size() <= kLimit);
        consumed += vela::kFrameHeaderSize + payload.size();
        FUZZ_CHECK(consumed <= size);

        Json::Value value;
        std::string error;
        if (!vela::parseJson(payload, &value, &error)) {
            FUZZ_CHECK(!error.empty());
            continue;
        }
        Json::Value again;
        std::string compact = vela::toCompact(value);
        FUZZ_CHECK(vela::parseJson(compact, &again, &error));
        FUZZ_CHECK(vela::toCompact(again) == compact);
        vela::protocol::Message m = vela::protocol::classify(std::move(value));
        if (m.kind == vela::protocol::Message::Kind::kInvalid)
            FUZZ_CHECK(!m.error.empty());
    }
    return 0;
}
