#pragma once

namespace orv::tsd {

// The side of the module a value or operation concerns. Consumers differ in
// how they treat other values; each says so where it matters. The fixed
// underlying type keeps such other values (2, say) well defined.
enum interface_t : int
{
    REAR_FW = 0,   // rear (back) port: the interface of the module's own FireWire node
    FRONT_FW = 1,  // front port
};

}  // namespace orv::tsd
