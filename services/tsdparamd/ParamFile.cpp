#include "ParamFile.h"

#include <cerrno>
#include <cstring>

#include "JsonText.h"
#include "SmallFile.h"

namespace orv::services {

Json::Value builtinParams()
{
    Json::Value value(Json::objectValue);
    value["timesource"] = "Ptp";
    value["threshold"] = 0.0;
    value["ntpserver"] = "127.0.0.1";
    value["ptp4l"] = "-4 -E -H -i eth0";
    return value;
}

Json::Value mergeParams(const Json::Value& base, const Json::Value& request)
{
    Json::Value merged = base;
    if (!request.isObject()) {
        return merged;
    }
    for (const std::string& key : request.getMemberNames()) {
        merged[key] = request[key];
    }
    return merged;
}

ParamFileStatus readParamFile(const std::string& path, Json::Value& value, std::string& reason)
{
    std::string text;
    const int rc = readSmallFile(path, kMaxParamFileBytes, text);
    if (rc == -ENOENT) {
        return ParamFileStatus::Missing;
    }
    if (rc == -EFBIG) {
        reason = "larger than " + std::to_string(kMaxParamFileBytes) + " bytes";
        return ParamFileStatus::Bad;
    }
    if (rc < 0) {
        reason = std::strerror(-rc);
        return ParamFileStatus::Bad;
    }
    std::string error;
    if (!vela::parseJson(text, &value, &error)) {
        reason = text.empty() ? "empty" : "not JSON: " + error;
        return ParamFileStatus::Bad;
    }
    return ParamFileStatus::Read;
}

std::string paramFileText(const Json::Value& value)
{
    return vela::toCompact(value) + "\n";
}

}  // namespace orv::services
