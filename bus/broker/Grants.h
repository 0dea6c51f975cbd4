#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vela {

// The rights of the access policy. A right is held on a path when some rule
// that applies to the peer grants it on a pattern that matches the path.
enum Right : unsigned
{
    kRightOwn = 1,    // add a state (and then change and remove it)
    kRightSet = 2,    // send set requests to a state's owner
    kRightFetch = 4,  // be told of a state and its changes
};

// A path pattern of the access policy: "*" is every path, "TEXT*" every path
// that begins with TEXT, anything else exactly that path. A '*' anywhere but
// at the end is refused, so a pattern never means more than it seems to.
class PathPattern
{
public:
    // False with a reason for a pattern with a misplaced '*' or an empty one.
    static bool parse(std::string_view text, PathPattern& out, std::string& error);

    bool matches(std::string_view path) const;
    bool everyPath() const { return m_prefix && m_text.empty(); }
    // The pattern as written.
    std::string text() const { return m_prefix ? m_text + "*" : m_text; }

private:
    std::string m_text;
    bool m_prefix = false;
};

// What one connection may do: the rights the policy gives its user, with the
// paths they hold on. Computed once when the connection is accepted; the
// checks then cost a walk over a handful of entries (none for a right held on
// every path).
class Grants
{
public:
    void add(unsigned rights, const PathPattern& pattern);

    bool may(Right right, std::string_view path) const;
    // True when the right is held on some path.
    bool mayAnywhere(Right right) const { return (m_somewhere & right) != 0; }
    // True when the right is held on every path.
    bool mayEverywhere(Right right) const { return (m_everywhere & right) != 0; }
    // "own,set,fetch on *; fetch on sync/*", for the log; "nothing" when empty.
    std::string describe() const;

private:
    struct Entry
    {
        unsigned rights;
        PathPattern pattern;
    };
    std::vector<Entry> m_entries;
    unsigned m_everywhere = 0;
    unsigned m_somewhere = 0;
};

// "own,set,fetch" for a set of rights.
std::string rightsText(unsigned rights);

}  // namespace vela
