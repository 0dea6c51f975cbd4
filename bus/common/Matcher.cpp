#include "Matcher.h"

namespace vela {

namespace {

bool startsWith(std::string_view s, std::string_view prefix)
{
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(std::string_view s, std::string_view suffix)
{
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

struct Criterion
{
    const char* name;
    std::string matcher_t::*member;
};

// The order is the order of the members of matcher_t.
const Criterion kCriteria[] = {
    {"equals", &matcher_t::equals},       {"startsWith", &matcher_t::startsWith},
    {"endsWith", &matcher_t::endsWith},   {"contains", &matcher_t::contains},
    {"equalsNot", &matcher_t::equalsNot},
};

}  // namespace

bool matches(const matcher_t& m, std::string_view path)
{
    if (!m.equals.empty() && path != m.equals) {
        return false;
    }
    if (!m.startsWith.empty() && !startsWith(path, m.startsWith)) {
        return false;
    }
    if (!m.endsWith.empty() && !endsWith(path, m.endsWith)) {
        return false;
    }
    if (!m.contains.empty() && path.find(m.contains) == std::string_view::npos) {
        return false;
    }
    if (!m.equalsNot.empty() && path == m.equalsNot) {
        return false;
    }
    return true;
}

Json::Value matcherToJson(const matcher_t& m)
{
    Json::Value json(Json::objectValue);
    for (const Criterion& c : kCriteria) {
        if (!(m.*c.member).empty()) {
            json[c.name] = m.*c.member;
        }
    }
    return json;
}

bool matcherFromJson(const Json::Value& json, matcher_t& m, std::string* error)
{
    m = matcher_t{};
    if (json.isNull()) {
        return true;
    }
    if (!json.isObject()) {
        if (error) {
            *error = "matcher must be an object";
        }
        return false;
    }
    for (auto it = json.begin(); it != json.end(); ++it) {
        const std::string name = it.name();
        const Criterion* found = nullptr;
        for (const Criterion& c : kCriteria) {
            if (name == c.name) {
                found = &c;
            }
        }
        if (!found) {
            if (error) {
                *error = "unknown matcher criterion '" + name + "'";
            }
            return false;
        }
        if (!it->isString()) {
            if (error) {
                *error = "matcher criterion '" + name + "' must be a string";
            }
            return false;
        }
        m.*found->member = it->asString();
    }
    return true;
}

}  // namespace vela
