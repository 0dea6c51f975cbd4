#pragma once

#include <stdexcept>
#include <string>

namespace orv::exception {

// The one exception the platform library throws, where an operation documents
// it (unknown adapters, a PID file held by a live process). Derived from
// std::runtime_error so that callers catching std::exception see it too; catch
// this type first where the two need different handling.
class exception : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

}  // namespace orv::exception
