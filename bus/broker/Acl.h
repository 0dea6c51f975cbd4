#pragma once

#include "Grants.h"
#include "PeerIdentity.h"

#include <string>
#include <string_view>
#include <vector>

namespace vela {

// The broker's access policy (acl.conf): who may own, set and fetch which
// paths. One rule per line:
//
//   SUBJECT RIGHTS PATTERN [PATTERN...]
//
// SUBJECT is "user NAME", "user UID", "group NAME", "group GID" or "all"
// (every connection). RIGHTS is a comma-separated list of own, set and
// fetch. PATTERN is a PathPattern ("*", "prefix*" or an exact path). Rules
// only grant: a peer holds the union of the rights of every rule that applies
// to it, and nothing else. A peer whose user cannot be learnt is matched by
// "all" rules only, and only for fetch.
//
// User and group names are looked up when a peer connects, so a rule may
// name a service user that is created after the broker started.
class Acl
{
public:
    // The policy a module runs with when it has no acl.conf (the same as
    // the shipped file): root may do everything, the service users of fwdevd
    // and tsdparamd own their paths, every other user may fetch and nothing
    // else.
    static const char* const kShippedPolicy;
    // The file a broker reads when told nothing else.
    static constexpr const char* kDefaultPath = "/etc/vela/acl.conf";

    static Acl shipped();
    // False with "line N: reason" in error for a malformed rule.
    static bool parse(std::string_view text, Acl& out, std::string& error);
    // Reads the file at path. A missing file gives the shipped policy when
    // mayBeMissing, else it is an error. error names the file.
    static bool load(const std::string& path, bool mayBeMissing, Acl& out, std::string& error);

    // The rights of a connection of this identity.
    Grants grantsFor(const PeerIdentity& id) const;
    std::size_t ruleCount() const { return m_rules.size(); }

private:
    enum class Subject
    {
        kAll,
        kUser,
        kGroup
    };
    struct Rule
    {
        Subject subject = Subject::kAll;
        bool numeric = false;
        unsigned long id = 0;  // numeric: the uid or gid
        std::string name;      // otherwise: the user or group name
        unsigned rights = 0;
        std::vector<PathPattern> patterns;
    };
    std::vector<Rule> m_rules;

    static bool appliesTo(const Rule& rule, const PeerIdentity& id);
};

}  // namespace vela
