#include "Acl.h"

#include "ConfigText.h"

#include <cerrno>
#include <cstdlib>

namespace vela {

// root does everything; the two services beside tsd that run as users of
// their own publish their one part of the bus; everyone reads.
const char* const Acl::kShippedPolicy =
    "user root own,set,fetch *\n"
    "user fwdevd own reachableDevices/*\n"
    "user tsdparamd own sync/param\n"
    "all fetch *\n";

namespace {

bool isNumber(const std::string& s)
{
    return !s.empty() && s.find_first_not_of("0123456789") == std::string::npos;
}

bool parseRights(const std::string& text, unsigned& rights, std::string& error)
{
    rights = 0;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t comma = text.find(',', pos);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        const std::string word = text.substr(pos, comma - pos);
        if (word == "own") {
            rights |= kRightOwn;
        } else if (word == "set") {
            rights |= kRightSet;
        } else if (word == "fetch") {
            rights |= kRightFetch;
        } else {
            error = "unknown right '" + word + "' (own, set, fetch, separated by commas)";
            return false;
        }
        pos = comma + 1;
    }
    return true;
}

}  // namespace

Acl Acl::shipped()
{
    Acl acl;
    std::string error;
    parse(kShippedPolicy, acl, error);
    return acl;
}

bool Acl::parse(std::string_view text, Acl& out, std::string& error)
{
    std::vector<ConfigLine> lines;
    if (!splitConfigLines(text, lines, error)) {
        return false;
    }
    std::vector<Rule> rules;
    for (const ConfigLine& line : lines) {
        const std::string where = "line " + std::to_string(line.number) + ": ";
        const std::vector<std::string>& w = line.words;
        Rule rule;
        std::size_t next = 1;
        if (w[0] == "all") {
            rule.subject = Subject::kAll;
        } else if (w[0] == "user" || w[0] == "group") {
            rule.subject = w[0] == "user" ? Subject::kUser : Subject::kGroup;
            if (w.size() < 2) {
                error = where + w[0] + " needs a name or a number";
                return false;
            }
            if (isNumber(w[1])) {
                errno = 0;
                rule.id = std::strtoul(w[1].c_str(), nullptr, 10);
                if (errno != 0 || rule.id > 0xfffffffeUL) {
                    error = where + "bad " + (rule.subject == Subject::kUser ? "uid" : "gid") + " '" +
                            w[1] + "'";
                    return false;
                }
                rule.numeric = true;
            } else {
                rule.name = w[1];
            }
            next = 2;
        } else {
            error = where + "a rule starts with 'user', 'group' or 'all', not '" + w[0] + "'";
            return false;
        }
        if (w.size() < next + 2) {
            error = where + "a rule needs rights and at least one path pattern";
            return false;
        }
        std::string reason;
        if (!parseRights(w[next], rule.rights, reason)) {
            error = where + reason;
            return false;
        }
        for (std::size_t i = next + 1; i < w.size(); ++i) {
            PathPattern pattern;
            if (!PathPattern::parse(w[i], pattern, reason)) {
                error = where + reason;
                return false;
            }
            rule.patterns.push_back(std::move(pattern));
        }
        rules.push_back(std::move(rule));
    }
    out.m_rules = std::move(rules);
    return true;
}

bool Acl::load(const std::string& path, bool mayBeMissing, Acl& out, std::string& error)
{
    Acl acl = shipped();
    if (!loadConfigFile(
            path, mayBeMissing, [&acl](std::string_view text, std::string& why) { return parse(text, acl, why); },
            error)) {
        return false;
    }
    out = std::move(acl);
    return true;
}

bool Acl::appliesTo(const Rule& rule, const PeerIdentity& id)
{
    switch (rule.subject) {
        case Subject::kAll:
            return true;
        case Subject::kUser:
            return rule.numeric ? id.uid == rule.id : (!id.user.empty() && id.user == rule.name);
        case Subject::kGroup:
            for (std::size_t i = 0; i < id.groups.size(); ++i) {
                if (rule.numeric ? id.groups[i] == rule.id
                                 : (!id.groupNames[i].empty() && id.groupNames[i] == rule.name)) {
                    return true;
                }
            }
            return false;
    }
    return false;
}

Grants Acl::grantsFor(const PeerIdentity& id) const
{
    Grants grants;
    for (const Rule& rule : m_rules) {
        if (id.known ? appliesTo(rule, id) : rule.subject == Subject::kAll) {
            // Whoever the kernel could not name gets no more than reading
            // what everyone may read.
            const unsigned rights = id.known ? rule.rights : (rule.rights & kRightFetch);
            if (rights == 0) {
                continue;
            }
            for (const PathPattern& pattern : rule.patterns) {
                grants.add(rights, pattern);
            }
        }
    }
    return grants;
}

}  // namespace vela
