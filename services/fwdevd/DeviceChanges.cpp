#include "DeviceChanges.h"

namespace orv::services {

DeviceChanges compareDevices(const DeviceSet& published, const DeviceSet& scanned)
{
    DeviceChanges changes;
    // Both maps are ordered by path: one merge walk finds every difference.
    auto old = published.begin();
    auto now = scanned.begin();
    while (old != published.end() || now != scanned.end()) {
        if (now == scanned.end() || (old != published.end() && old->first < now->first)) {
            changes.removed.push_back(old->first);
            ++old;
        } else if (old == published.end() || now->first < old->first) {
            changes.added.emplace_back(now->first, now->second);
            ++now;
        } else {
            if (old->second != now->second) {
                changes.changed.emplace_back(now->first, now->second);
            }
            ++old;
            ++now;
        }
    }
    return changes;
}

}  // namespace orv::services
