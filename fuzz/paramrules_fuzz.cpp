// Feeds tsdparamd's validator the set requests a bus client may send for
// "sync/param", as the keeper handles them: the input is JSON, an array of
// requests (anything else is one request); each request's keys are merged
// over the value kept so far, the result is checked as a whole and kept only
// when the rules accept it. Checks that a kept value always passes the rules
// again, reaches ptp4l only with allowed options, is stored as text that reads
// back to the same value, and that every refusal has a reason free of control
// bytes (it is logged and sent back to the client).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "JsonText.h"
#include "ParamFile.h"
#include "ParamRules.h"
#include "Ptp4lAllowList.h"
#include "support/Check.h"

namespace {

const orv::services::Ptp4lAllowList& allowList()
{
    static const orv::services::Ptp4lAllowList list = [] {
        orv::services::Ptp4lAllowList l;
        std::string error;
        if (!l.load(TSD_PTP4L_OPTIONS, error))
            ::fuzzsupport::fail("the shipped ptp4l allow-list does not load", __FILE__, __LINE__);
        return l;
    }();
    return list;
}

void checkReason(const std::string& fault)
{
    for (char ch : fault)
        FUZZ_CHECK(static_cast<unsigned char>(ch) >= 0x20 && static_cast<unsigned char>(ch) < 0x7f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const orv::services::ParamRules rules({"Gps", "Ntp", "Ptp"}, allowList());

    Json::Value input;
    std::string error;
    if (!vela::parseJson(std::string_view(reinterpret_cast<const char*>(data), size), &input, &error))
        return 0;
    Json::Value requests(Json::arrayValue);
    if (input.isArray())
        requests = input;
    else
        requests.append(input);

    Json::Value kept = orv::services::builtinParams();
    FUZZ_CHECK(rules.check(kept).empty());
    for (const Json::Value& request : requests) {
        const Json::Value merged = orv::services::mergeParams(kept, request);
        const std::string fault = request.isObject() ? rules.check(merged) : rules.check(request);
        if (!fault.empty()) {
            checkReason(fault);
            continue;
        }
        FUZZ_CHECK(request.isObject());
        kept = merged;
        FUZZ_CHECK(rules.check(kept).empty());
        FUZZ_CHECK(kept.size() == 4);
        FUZZ_CHECK(allowList().check(kept["ptp4l"].asString()).empty());

        const std::string text = orv::services::paramFileText(kept);
        FUZZ_CHECK(!text.empty() && text.back() == '\n');
        Json::Value again;
        FUZZ_CHECK(vela::parseJson(std::string_view(text).substr(0, text.size() - 1), &again, &error));
        FUZZ_CHECK(again == kept);
        FUZZ_CHECK(rules.check(again).empty());
    }
    return 0;
}
