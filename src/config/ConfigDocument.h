#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace pugi {
class xml_document;
}

namespace orv::tsd {

// What the daemon takes from a loaded configuration document, still as text
// and in document order, so that the reader can log each value as it stands
// before converting it. Pure: no files, no logging.
struct ConfigDocument
{
    std::string rootName;  // name of the document's first child
    std::string multicastAddress;
    std::string multicastPort;  // decimal text
    // (name, level text) of every element under PrioLevel/ModuleType, then
    // under PrioLevel/TimeSource.
    std::vector<std::pair<std::string, std::string>> prioLevels;
    // How many of prioLevels came from ModuleType; the rest are the time
    // sources, which is what the keeper of the time-source parameters offers.
    std::size_t moduleTypeCount = 0;

    static ConfigDocument read(const pugi::xml_document& document);

    // strtoul base 10: leading digits count, text without any gives 0, and a
    // value beyond 32 bits is cut to 32 bits.
    static unsigned toNumber(const std::string& text);
};

}  // namespace orv::tsd
