#include "protocol/Telegram.h"

#include <cstdlib>
#include <sstream>
#include <vector>

#include <orv/string/split.h>

#include "protocol/ModuleItem.h"

namespace orv::tsd::telegram {
namespace {

const char kFrame[] = "<sync>";

// Only side 1 writes its number: receivers tell the sides apart by the field
// count, never by the value of this field.
void appendSide(std::ostringstream& text, interface_t side)
{
    if (side == FRONT_FW)
        text << std::hex << static_cast<int>(side) << ':';
}

std::string encodeRequest(const char* command, interface_t side)
{
    std::ostringstream text;
    text << kFrame << ':' << command << ':';
    appendSide(text, side);
    text << kFrame;
    return text.str();
}

}  // namespace

std::string encodeStart(interface_t side)
{
    return encodeRequest("start", side);
}

std::string encodeResync(interface_t side)
{
    return encodeRequest("resync", side);
}

std::string encodeItem(const ModuleItem& item, interface_t side)
{
    std::ostringstream text;
    text << kFrame << ":item:" << std::hex << item.uuid << ':' << item.module << ':' << item.prio << ':'
         << item.threshold << ':';
    appendSide(text, side);
    text << kFrame;
    return text.str();
}

Decoded decode(const char* data, std::size_t length)
{
    Decoded result;
    const std::vector<std::string> fields = orv::string::split(std::string(data, length), ":");
    if (fields.size() < 3 || fields.front() != kFrame || fields.back() != fields.front()) {
        result.kind = Kind::BadFormat;
        return result;
    }

    const std::string& command = fields[1];
    const std::size_t n = fields.size();
    result.kind = Kind::Unknown;
    if (command == "start" && (n == 3 || n == 4)) {
        result.kind = Kind::Start;
        result.sentOver = n == 3 ? REAR_FW : FRONT_FW;
    } else if (command == "resync" && (n == 3 || n == 4)) {
        result.kind = Kind::Resync;
        result.sentOver = n == 3 ? REAR_FW : FRONT_FW;
    } else if (command == "item" && (n == 7 || n == 8)) {
        result.kind = Kind::Item;
        result.sentOver = n == 7 ? REAR_FW : FRONT_FW;
        result.uuid = fields[2];
        result.module = fields[3];
        result.prio = fields[4];
        result.threshold = fields[5];
    }
    return result;
}

unsigned parseHex(const std::string& text)
{
    return static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 16));
}

}  // namespace orv::tsd::telegram
