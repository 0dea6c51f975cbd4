#pragma once

namespace orv::tsd {

// The side of the module a value or operation concerns. Consumers differ in
// how they treat other values; each says so where it matters.
enum interface_t
{
    REAR_FW = 0,   // rear (back) port: the interface of the module's own FireWire node
    FRONT_FW = 1,  // front port
};

}  // namespace orv::tsd
