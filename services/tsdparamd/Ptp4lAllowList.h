#pragma once

#include <map>
#include <string>
#include <string_view>

namespace orv::services {

// The ptp4l options a bus client may pass to the module's ptp4l (which runs
// as root) through the "ptp4l" key of "sync/param", read from the shipped
// allow-list file that the PTP start script checks too. Anything not on the
// list is refused, so that options reading or writing files, devices or
// sockets can never be smuggled in.
//
// File format: one option per line, the option as written on the command
// line and, if it takes one, the kind of its argument; blank lines and lines
// starting with '#' are skipped. A short option takes its argument as the
// next token, a long option as the next token or after '='.
class Ptp4lAllowList
{
public:
    enum class Argument
    {
        None,
        Interface,  // 1 to 15 of A-Z a-z 0-9 _ . -, not starting with '-'
        Unsigned,   // 1 to 9 digits
        Integer,    // an optional '-' and 1 to 9 digits
        Number,     // an optional '-', 1 to 9 digits, optionally '.' and 1 to 9 digits
        Word,       // a letter, then up to 31 of A-Z a-z 0-9 _
    };

    // Largest allow-list file read; a bigger one is not the shipped list.
    static constexpr std::size_t kMaxFileBytes = 64 * 1024;
    // Longest "ptp4l" value taken: one line of ptp4l's command line.
    static constexpr std::size_t kMaxValueBytes = 1024;

    // Reads the list; false with the reason (file, line) in error. A list
    // that failed to load refuses every non-empty value.
    bool load(const std::string& path, std::string& error);
    bool parse(std::string_view text, std::string& error);
    bool usable() const { return m_usable; }
    std::size_t size() const { return m_options.size(); }

    // Empty when value may reach ptp4l; otherwise why not, naming the
    // offending token in double quotes as printable() shows it.
    std::string check(std::string_view value) const;

    static bool matches(Argument kind, std::string_view argument);

private:
    std::map<std::string, Argument, std::less<>> m_options;
    bool m_usable = false;
};

}  // namespace orv::services
