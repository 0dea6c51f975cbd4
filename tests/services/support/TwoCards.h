#pragma once

#include <cstdint>
#include <string>

#include "SysfsTree.h"

namespace servicetest {

// The tree most tests start from. Card A: its own node fw0 on firewire0, a
// module fw1 and a foreign camera fw2 (with a unit fw2.0). Card B: its own
// node fw3 on firewire1 and a module fw4. An Ethernet interface beside them.
namespace twocards {
extern const std::string kCardA;
extern const std::string kCardB;
// A module's node id carries the maker's OUI in bits 24..47 and the
// module's uuid below it, which is what tsd looks for.
constexpr std::uint64_t kLocalA = 0x00000a7c31000a01;
constexpr std::uint64_t kLocalB = 0x00000a7c31000a02;
constexpr std::uint64_t kRemoteOwn = 0x00000a7c31000b02;      // fw1
constexpr std::uint64_t kRemoteForeign = 0x0011220000334455;  // fw2
constexpr std::uint64_t kRemoteB = 0x00000a7c31000c03;        // fw4
extern const std::string kPathOwn;
extern const std::string kPathForeign;
extern const std::string kPathB;

void build(orv::services::SysfsTree& tree);
}  // namespace twocards

}  // namespace servicetest
