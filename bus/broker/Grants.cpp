#include "Grants.h"

#include <utility>

namespace vela {

bool PathPattern::parse(std::string_view text, PathPattern& out, std::string& error)
{
    if (text.empty()) {
        error = "empty path pattern";
        return false;
    }
    const std::size_t star = text.find('*');
    if (star != std::string_view::npos && star != text.size() - 1) {
        error = "'*' may only end a path pattern: '" + std::string(text) + "'";
        return false;
    }
    out.m_prefix = star != std::string_view::npos;
    out.m_text = std::string(out.m_prefix ? text.substr(0, star) : text);
    return true;
}

bool PathPattern::matches(std::string_view path) const
{
    if (!m_prefix) {
        return path == m_text;
    }
    return path.size() >= m_text.size() && path.compare(0, m_text.size(), m_text) == 0;
}

void Grants::add(unsigned rights, const PathPattern& pattern)
{
    m_somewhere |= rights;
    if (pattern.everyPath()) {
        m_everywhere |= rights;
    }
    m_entries.push_back(Entry{rights, pattern});
}

bool Grants::may(Right right, std::string_view path) const
{
    if (m_everywhere & right) {
        return true;
    }
    if (!(m_somewhere & right)) {
        return false;
    }
    for (const Entry& e : m_entries) {
        if ((e.rights & right) && e.pattern.matches(path)) {
            return true;
        }
    }
    return false;
}

std::string Grants::describe() const
{
    if (m_entries.empty()) {
        return "nothing";
    }
    std::string s;
    for (const Entry& e : m_entries) {
        if (!s.empty()) {
            s += "; ";
        }
        s += rightsText(e.rights) + " on " + e.pattern.text();
    }
    return s;
}

std::string rightsText(unsigned rights)
{
    std::string s;
    for (auto [bit, name] : {std::pair<unsigned, const char*>{kRightOwn, "own"},
                             {kRightSet, "set"},
                             {kRightFetch, "fetch"}}) {
        if (rights & bit) {
            if (!s.empty()) {
                s += ',';
            }
            s += name;
        }
    }
    return s;
}

}  // namespace vela
