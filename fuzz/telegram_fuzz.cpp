// Feeds arbitrary datagrams to the telegram decoder, and arbitrary records to
// the encoder, checking that what the encoder writes decodes back to itself
// and that the decoder never accepts what the framing rules out.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "protocol/ModuleItem.h"
#include "protocol/Telegram.h"
#include "support/Check.h"

using namespace orv::tsd;

namespace {

unsigned word(const std::uint8_t* data, std::size_t size, std::size_t at)
{
    unsigned value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = (value << 8) | (at + i < size ? data[at + i] : 0u);
    return value;
}

void roundTrip(const std::uint8_t* data, std::size_t size)
{
    const ModuleItem item(word(data, size, 0), word(data, size, 4), word(data, size, 8),
                          word(data, size, 12));
    for (interface_t side : {REAR_FW, FRONT_FW}) {
        const std::string text = telegram::encodeItem(item, side);
        const telegram::Decoded decoded = telegram::decode(text.data(), text.size());
        FUZZ_CHECK(decoded.kind == telegram::Kind::Item);
        FUZZ_CHECK(decoded.sentOver == side);
        FUZZ_CHECK(telegram::parseHex(decoded.uuid) == item.uuid);
        FUZZ_CHECK(telegram::parseHex(decoded.module) == item.module);
        FUZZ_CHECK(telegram::parseHex(decoded.prio) == item.prio);
        FUZZ_CHECK(telegram::parseHex(decoded.threshold) == item.threshold);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const char* text = reinterpret_cast<const char*>(data);
    const telegram::Decoded decoded = telegram::decode(text, size);

    const std::string whole(text, size);
    const bool framed = whole.size() >= 13 && whole.compare(0, 7, "<sync>:") == 0 &&
                        whole.compare(whole.size() - 7, 7, ":<sync>") == 0;
    if (!framed)
        FUZZ_CHECK(decoded.kind == telegram::Kind::BadFormat);
    if (decoded.kind == telegram::Kind::Item) {
        telegram::parseHex(decoded.uuid);
        telegram::parseHex(decoded.module);
        telegram::parseHex(decoded.prio);
        telegram::parseHex(decoded.threshold);
    }
    roundTrip(data, size);
    return 0;
}
