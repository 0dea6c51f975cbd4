#include "config/ConfigDocument.h"

#include <cstdlib>

#include <pugixml.hpp>

namespace orv::tsd {
namespace {

// Only element children carry a name/level pair; stray text between them
// would otherwise become an entry with an empty name.
void collectLevels(const pugi::xml_node& section, std::vector<std::pair<std::string, std::string>>& levels)
{
    for (const pugi::xml_node& child : section.children()) {
        if (child.type() != pugi::node_element)
            continue;
        levels.emplace_back(child.name(), child.child_value());
    }
}

}  // namespace

ConfigDocument ConfigDocument::read(const pugi::xml_document& document)
{
    ConfigDocument result;
    result.rootName = document.first_child().name();

    const pugi::xml_node root = document.child("TimeSyncDaemon");
    const pugi::xml_node multicast = root.child("MultiCastParam");
    result.multicastAddress = multicast.child("Address").child_value();
    result.multicastPort = multicast.child("Port").child_value();

    const pugi::xml_node levels = root.child("PrioLevel");
    collectLevels(levels.child("ModuleType"), result.prioLevels);
    result.moduleTypeCount = result.prioLevels.size();
    collectLevels(levels.child("TimeSource"), result.prioLevels);
    return result;
}

unsigned ConfigDocument::toNumber(const std::string& text)
{
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
}

}  // namespace orv::tsd
