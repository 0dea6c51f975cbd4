#include "NtpServer.h"

#include <algorithm>

namespace orv::services {
namespace {

constexpr std::size_t kMaxIpv6Literal = 45;
constexpr std::size_t kMaxHostName = 253;
constexpr std::size_t kMaxLabel = 63;

bool isHexDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isLabelCharacter(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-';
}

bool isLabel(std::string_view label)
{
    return !label.empty() && label.size() <= kMaxLabel && label.front() != '-' && label.back() != '-' &&
           std::all_of(label.begin(), label.end(), isLabelCharacter);
}

}  // namespace

bool isNtpServer(std::string_view text)
{
    if (text.find(':') != std::string_view::npos) {
        return text.size() >= 2 && text.size() <= kMaxIpv6Literal &&
               std::all_of(text.begin(), text.end(),
                           [](char c) { return isHexDigit(c) || c == ':' || c == '.'; });
    }
    if (text.empty() || text.size() > kMaxHostName) {
        return false;
    }
    if (text.back() == '.') {
        text.remove_suffix(1);
    }
    if (text.empty()) {
        return false;
    }
    for (;;) {
        const std::size_t dot = text.find('.');
        if (!isLabel(text.substr(0, dot))) {
            return false;
        }
        if (dot == std::string_view::npos) {
            return true;
        }
        text.remove_prefix(dot + 1);
    }
}

}  // namespace orv::services
