#include "JsonText.h"

#include <json/reader.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace vela {

namespace {

std::unique_ptr<Json::CharReader> makeReader()
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    // strictMode refuses a top-level scalar; bus values may be scalars.
    builder["strictRoot"] = false;
    builder["stackLimit"] = static_cast<int>(kMaxJsonDepth);
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

void appendReal(std::string& out, double d)
{
    if (!std::isfinite(d)) {
        out += "null";
        return;
    }
    char buf[32];
    // The shortest of 15..17 significant digits that reads back exactly: 0.1
    // stays 0.1 while a computed 1.3000000000000003 keeps its last digit.
    for (int precision = 15; precision <= 17; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, d);
        if (std::strtod(buf, nullptr) == d) {
            break;
        }
    }
    std::string_view text(buf);
    out += text;
    if (text.find_first_of(".eE") == std::string_view::npos) {
        out += ".0";
    }
}

}  // namespace

bool parseJson(std::string_view text, Json::Value* out, std::string* error)
{
    // One reader per thread: building a reader costs more than parsing a
    // small frame.
    thread_local std::unique_ptr<Json::CharReader> reader = makeReader();
    Json::Value scratch;
    std::string message;
    bool ok = false;
    try {
        ok = reader->parse(text.data(), text.data() + text.size(), out ? out : &scratch, &message);
    } catch (const std::exception& e) {
        // The parser reports too deep nesting by throwing.
        message = e.what();
        ok = false;
    }
    if (!ok && error) {
        // The reader's message spans several lines; a log line wants one.
        for (char& c : message) {
            if (c == '\n') {
                c = ' ';
            }
        }
        while (!message.empty() && message.back() == ' ') {
            message.pop_back();
        }
        *error = message.empty() ? "invalid JSON" : message;
    }
    return ok;
}

void appendQuoted(std::string& out, std::string_view s)
{
    static const char kHex[] = "0123456789abcdef";
    out += '"';
    for (char c : s) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    out += "\\u00";
                    out += kHex[(static_cast<unsigned char>(c) >> 4) & 0xf];
                    out += kHex[static_cast<unsigned char>(c) & 0xf];
                } else {
                    out += c;
                }
        }
    }
    out += '"';
}

void appendCompact(std::string& out, const Json::Value& value)
{
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            break;
        case Json::intValue:
            out += std::to_string(value.asLargestInt());
            break;
        case Json::uintValue:
            out += std::to_string(value.asLargestUInt());
            break;
        case Json::realValue:
            appendReal(out, value.asDouble());
            break;
        case Json::stringValue: {
            const char* begin = nullptr;
            const char* end = nullptr;
            value.getString(&begin, &end);
            appendQuoted(out, std::string_view(begin, static_cast<std::size_t>(end - begin)));
            break;
        }
        case Json::booleanValue:
            out += value.asBool() ? "true" : "false";
            break;
        case Json::arrayValue: {
            out += '[';
            for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
                if (i) {
                    out += ',';
                }
                appendCompact(out, value[i]);
            }
            out += ']';
            break;
        }
        case Json::objectValue: {
            out += '{';
            bool first = true;
            // Members iterate in key order, which keeps the output stable.
            for (auto it = value.begin(); it != value.end(); ++it) {
                if (!first) {
                    out += ',';
                }
                first = false;
                appendQuoted(out, it.name());
                out += ':';
                appendCompact(out, *it);
            }
            out += '}';
            break;
        }
    }
}

std::string toCompact(const Json::Value& value)
{
    std::string out;
    appendCompact(out, value);
    return out;
}

}  // namespace vela
