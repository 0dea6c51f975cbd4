#pragma once

#include <cstddef>
#include <string>

#include "config/InterfaceType.h"

struct ModuleItem;

// Text form of the telegrams between modules, free of sockets and state so
// that it can be tested and fuzzed on its own. Fields are joined by ":", the
// first and the last one are "<sync>"; a telegram sent over the front side
// carries an extra field "1" before the closing "<sync>". Numbers are
// lower-case hexadecimal without prefix.
namespace orv::tsd::telegram {

// What a received datagram is, judged by its frame, its command word and its
// field count only. The side it arrived on is the caller's business.
enum class Kind
{
    BadFormat,  // fewer than 3 fields, or not framed by the same "<sync>"
    Unknown,    // framed, but no command/field count the protocol knows
    Start,
    Resync,
    Item,
};

struct Decoded
{
    Kind kind = Kind::BadFormat;
    // The side whose field count the telegram has: front when it carries the
    // extra field. Meaningful for Start, Resync and Item.
    interface_t sentOver = REAR_FW;
    // Item fields as received (hexadecimal text).
    std::string uuid;
    std::string module;
    std::string prio;
    std::string threshold;
};

std::string encodeStart(interface_t side);
std::string encodeResync(interface_t side);
std::string encodeItem(const ModuleItem& item, interface_t side);

Decoded decode(const char* data, std::size_t length);

// strtoul base 16: leading hex digits count, text without any gives 0, and
// values beyond 32 bits are cut to the record's width.
unsigned parseHex(const std::string& text);

}  // namespace orv::tsd::telegram
