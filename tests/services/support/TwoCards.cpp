#include "TwoCards.h"

namespace servicetest {

using orv::services::guidAttribute;

namespace twocards {

const std::string kCardA = "pci0000:00/0000:00:1c.0/0000:05:00.0";
const std::string kCardB = "pci0000:00/0000:00:1c.1/0000:06:00.0";
const std::string kPathOwn = "reachableDevices/firewire0/00000A7C31000B02";
const std::string kPathForeign = "reachableDevices/firewire0/0011220000334455";
const std::string kPathB = "reachableDevices/firewire1/00000A7C31000C03";

void build(orv::services::SysfsTree& tree)
{
    tree.addNode(kCardA, "fw0", kLocalA, true);
    tree.addNode(kCardA, "fw1", kRemoteOwn, false);
    tree.addNode(kCardA, "fw2",
                 {{"guid", guidAttribute(kRemoteForeign)},
                  {"is_local", "0"},
                  {"vendor", "0x001122"},
                  {"model", "0x000042"},
                  {"vendor_name", "Camera Maker"},
                  {"model_name", "Cam 1"}});
    tree.addNode(kCardA + "/fw2", "fw2.0", {{"rom_index", "7"}});
    tree.addNode(kCardB, "fw3", kLocalB, true);
    tree.addNode(kCardB, "fw4", kRemoteB, false);
    tree.addInterface(kCardA, "firewire0", kLocalA);
    tree.addInterface(kCardB, "firewire1", kLocalB);
    tree.addInterface("pci0000:00/0000:00:19.0", "eth0", "1", "52:54:00:12:34:56");
}

}  // namespace twocards

}  // namespace servicetest
