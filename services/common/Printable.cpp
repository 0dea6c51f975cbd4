#include "Printable.h"

namespace orv::services {

std::string printable(std::string_view text)
{
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (byte < 0x20 || byte > 0x7e) {
            out += "\\x";
            out += kHex[byte >> 4];
            out += kHex[byte & 0x0f];
        } else {
            out += c;
        }
    }
    return out;
}

std::string printable(std::string_view text, std::size_t maxBytes)
{
    if (text.size() <= maxBytes) {
        return printable(text);
    }
    return printable(text.substr(0, maxBytes)) + "...";
}

}  // namespace orv::services
