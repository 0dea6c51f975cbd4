#pragma once

#include <cstdint>
#include <string>

#include "tsdsim/ModuleSetup.h"

namespace integration {

// An RZ module whose time source is PTP, talking on group:port.
inline tsdsim::ModuleSetup ptpModuleSetup(const std::string& name, std::uint32_t uuid,
                                          const std::string& group, unsigned port, double threshold)
{
    tsdsim::ModuleSetup s;
    s.name = name;
    s.uuid = uuid;
    s.type = "RZ";
    s.param.timesource = "Ptp";
    s.param.threshold = threshold;
    s.group = group;
    s.port = port;
    return s;
}

}  // namespace integration
