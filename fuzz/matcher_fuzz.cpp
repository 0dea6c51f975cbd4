// Feeds the path matcher of a fetch request as it arrives on the bus: the
// input is the matcher's JSON, a line feed, then a state path. A matcher that
// is read back is written again unchanged (no criterion lost, none invented),
// and it takes a path exactly when the path passes every criterion that is
// set, as checked here by plain string operations. A refused matcher comes
// with a reason.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "JsonText.h"
#include "Matcher.h"
#include "support/Check.h"

namespace {

bool passes(const std::string& criterion, bool ok)
{
    return criterion.empty() || ok;
}

bool expectedMatch(const vela::matcher_t& m, const std::string& path)
{
    const bool startsWith = path.rfind(m.startsWith, 0) == 0;
    const bool endsWith =
        path.size() >= m.endsWith.size() && path.substr(path.size() - m.endsWith.size()) == m.endsWith;
    return passes(m.equals, path == m.equals) && passes(m.startsWith, startsWith) &&
           passes(m.endsWith, endsWith) && passes(m.contains, path.find(m.contains) != std::string::npos) &&
           passes(m.equalsNot, path != m.equalsNot);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t newline = input.find('\n');
    const std::string_view jsonText = input.substr(0, newline);
    const std::string path(newline == std::string_view::npos ? std::string_view() : input.substr(newline + 1));

    Json::Value json;
    std::string error;
    if (!vela::parseJson(jsonText, &json, &error))
        return 0;

    vela::matcher_t matcher;
    if (!vela::matcherFromJson(json, matcher, &error)) {
        FUZZ_CHECK(!error.empty());
        return 0;
    }
    const Json::Value written = vela::matcherToJson(matcher);
    vela::matcher_t again;
    FUZZ_CHECK(vela::matcherFromJson(written, again, nullptr));
    FUZZ_CHECK(vela::matcherToJson(again) == written);
    // Only empty criteria may be dropped on the way.
    for (const char* name : {"equals", "startsWith", "endsWith", "contains", "equalsNot"}) {
        if (json.isObject() && json.isMember(name) && !json[name].asString().empty())
            FUZZ_CHECK(written[name] == json[name]);
    }

    FUZZ_CHECK(vela::matches(matcher, path) == expectedMatch(matcher, path));
    if (!matcher.equals.empty())
        FUZZ_CHECK(vela::matches(matcher, matcher.equals) == expectedMatch(matcher, matcher.equals));
    return 0;
}
