// The states this module publishes for applications: "sync/app" (status,
// master and master threshold of each side) and, from the election,
// "sync/master". Applications may read them but change nothing.
#include <json/writer.h>

#include <vela/PeerAsync.h>

#include "main/Debug.h"
#include "sync/TimeSyncManagement.h"

namespace orv::tsd {

void TimeSyncManagement::notifyParams(enSyncStatus modeBack, enSyncStatus modeFront, unsigned uuidBack,
                                      unsigned uuidFront, double thresholdBack, double thresholdFront)
{
    // Both sides are always sent: the whole value is replaced.
    Json::Value app(Json::objectValue);
    app["mode_back"] = static_cast<int>(modeBack);
    app["mode_front"] = static_cast<int>(modeFront);
    app["master_uuid_back"] = uuidBack;
    app["master_uuid_front"] = uuidFront;
    app["master_threshold_back"] = thresholdBack;
    app["master_threshold_front"] = thresholdFront;
    m_peer.notifyState(kAppStatePath, app);
}

Json::Value TimeSyncManagement::cbAppParams(const Json::Value& request)
{
    if (isDebugMode()) {
        Json::StyledWriter writer;
        debugLog(std::string("TsdVelaCom::") + "cbAppParams" + ": " + writer.write(request));
    }
    return Json::Value();
}

}  // namespace orv::tsd
