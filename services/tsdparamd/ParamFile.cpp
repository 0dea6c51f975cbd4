#include "ParamFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "JsonText.h"

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
    // O_NONBLOCK: a pipe put in the file's place must not hang the start.
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOENT) {
            return ParamFileStatus::Missing;
        }
        reason = std::strerror(errno);
        return ParamFileStatus::Bad;
    }
    std::string text;
    char buffer[4096];
    ssize_t n = 0;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0 && text.size() <= kMaxParamFileBytes) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    const int readError = n < 0 ? errno : 0;
    ::close(fd);
    if (readError != 0) {
        reason = std::strerror(readError);
        return ParamFileStatus::Bad;
    }
    if (text.size() > kMaxParamFileBytes) {
        reason = "larger than " + std::to_string(kMaxParamFileBytes) + " bytes";
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
