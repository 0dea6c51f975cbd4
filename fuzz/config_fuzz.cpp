// Feeds arbitrary bytes as the configuration file: whatever pugixml makes of
// them, reading the document must give plain values, and the number
// conversions must agree with the rules the daemon documents.

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include <pugixml.hpp>

#include "config/ConfigDocument.h"
#include "support/Check.h"

using orv::tsd::ConfigDocument;

namespace {

// Text that does not start (after blanks and a sign) with a digit converts
// to 0.
void checkNumber(const std::string& text)
{
    const unsigned value = ConfigDocument::toNumber(text);
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        ++i;
    if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i])))
        FUZZ_CHECK(value == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    pugi::xml_document document;
    if (!document.load_buffer(data, size, pugi::parse_default, pugi::encoding_auto))
        return 0;
    const ConfigDocument values = ConfigDocument::read(document);
    checkNumber(values.multicastPort);
    for (const auto& level : values.prioLevels) {
        FUZZ_CHECK(!level.first.empty());
        checkNumber(level.second);
    }
    return 0;
}
