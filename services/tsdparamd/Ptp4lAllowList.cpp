#include "Ptp4lAllowList.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "Printable.h"
#include "SmallFile.h"

namespace orv::services {
namespace {

// Tokens are shown up to this many bytes in a refusal.
constexpr std::size_t kMaxShownToken = 64;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

// Printable ASCII: anything else in a value refuses it whole.
bool isPrintable(char c)
{
    return c >= ' ' && c <= '~';
}

// 1..9 digits from the start of text; how many, 0 when none or too many.
std::size_t digits(std::string_view text)
{
    std::size_t n = 0;
    while (n < text.size() && isDigit(text[n])) {
        ++n;
    }
    return n <= 9 ? n : 0;
}

std::string shown(std::string_view token)
{
    return "\"" + printable(token, kMaxShownToken) + "\"";
}

const char* describe(Ptp4lAllowList::Argument kind)
{
    switch (kind) {
        case Ptp4lAllowList::Argument::Interface:
            return "an interface name: 1 to 15 of A-Z a-z 0-9 _ . -, not starting with '-'";
        case Ptp4lAllowList::Argument::Unsigned:
            return "an unsigned number: 1 to 9 digits";
        case Ptp4lAllowList::Argument::Integer:
            return "an integer: an optional '-' and 1 to 9 digits";
        case Ptp4lAllowList::Argument::Number:
            return "a number: an optional '-', 1 to 9 digits, optionally '.' and 1 to 9 digits";
        case Ptp4lAllowList::Argument::Word:
            return "a word: a letter, then up to 31 of A-Z a-z 0-9 _";
        case Ptp4lAllowList::Argument::None:
            break;
    }
    return "no argument";
}

bool kindFromName(std::string_view name, Ptp4lAllowList::Argument& kind)
{
    static const std::pair<const char*, Ptp4lAllowList::Argument> kKinds[] = {
        {"interface", Ptp4lAllowList::Argument::Interface}, {"unsigned", Ptp4lAllowList::Argument::Unsigned},
        {"integer", Ptp4lAllowList::Argument::Integer},     {"number", Ptp4lAllowList::Argument::Number},
        {"word", Ptp4lAllowList::Argument::Word},
    };
    for (const auto& [text, value] : kKinds) {
        if (name == text) {
            kind = value;
            return true;
        }
    }
    return false;
}

// "-x" with one letter or digit, or "--name" of letters, digits and '_'.
bool isOptionName(std::string_view name)
{
    if (name.size() == 2 && name[0] == '-') {
        return isLetter(name[1]) || isDigit(name[1]);
    }
    return name.size() > 2 && name.compare(0, 2, "--") == 0 && isLetter(name[2]) &&
           std::all_of(name.begin() + 2, name.end(),
                       [](char c) { return isLetter(c) || isDigit(c) || c == '_'; });
}

std::vector<std::string_view> splitBlanks(std::string_view text)
{
    std::vector<std::string_view> words;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && isBlank(text[i])) {
            ++i;
        }
        const std::size_t start = i;
        while (i < text.size() && !isBlank(text[i])) {
            ++i;
        }
        if (i > start) {
            words.push_back(text.substr(start, i - start));
        }
    }
    return words;
}

}  // namespace

bool Ptp4lAllowList::matches(Argument kind, std::string_view argument)
{
    switch (kind) {
        case Argument::None:
            return false;
        case Argument::Interface:
            return !argument.empty() && argument.size() <= 15 && argument.front() != '-' &&
                   std::all_of(argument.begin(), argument.end(), [](char c) {
                       return isLetter(c) || isDigit(c) || c == '_' || c == '.' || c == '-';
                   });
        case Argument::Unsigned:
            return digits(argument) == argument.size() && !argument.empty();
        case Argument::Integer:
            if (!argument.empty() && argument.front() == '-') {
                argument.remove_prefix(1);
            }
            return !argument.empty() && digits(argument) == argument.size();
        case Argument::Number: {
            if (!argument.empty() && argument.front() == '-') {
                argument.remove_prefix(1);
            }
            const std::size_t whole = digits(argument);
            if (whole == 0) {
                return false;
            }
            argument.remove_prefix(whole);
            if (argument.empty()) {
                return true;
            }
            if (argument.front() != '.') {
                return false;
            }
            argument.remove_prefix(1);
            return !argument.empty() && digits(argument) == argument.size();
        }
        case Argument::Word:
            return !argument.empty() && argument.size() <= 32 && isLetter(argument.front()) &&
                   std::all_of(argument.begin(), argument.end(),
                               [](char c) { return isLetter(c) || isDigit(c) || c == '_'; });
    }
    return false;
}

bool Ptp4lAllowList::load(const std::string& path, std::string& error)
{
    m_options.clear();
    m_usable = false;
    std::string text;
    const int rc = readSmallFile(path, kMaxFileBytes, text);
    if (rc == -EFBIG) {
        error = printable(path) + ": larger than " + std::to_string(kMaxFileBytes) + " bytes";
        return false;
    }
    if (rc < 0) {
        error = printable(path) + ": " + std::strerror(-rc);
        return false;
    }
    if (!parse(text, error)) {
        error = printable(path) + ": " + error;
        return false;
    }
    return true;
}

bool Ptp4lAllowList::parse(std::string_view text, std::string& error)
{
    m_options.clear();
    m_usable = false;
    std::size_t lineNumber = 0;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        ++lineNumber;
        const std::string where = "line " + std::to_string(lineNumber) + ": ";
        if (!std::all_of(line.begin(), line.end(), [](char c) { return isPrintable(c) || c == '\t'; })) {
            error = where + "bytes outside printable ASCII";
            return false;
        }
        const std::vector<std::string_view> words = splitBlanks(line);
        if (words.empty() || words.front().front() == '#') {
            continue;
        }
        if (words.size() > 2 || !isOptionName(words[0])) {
            error = where + "not an option and an argument kind: " + shown(line);
            return false;
        }
        Argument kind = Argument::None;
        if (words.size() == 2 && !kindFromName(words[1], kind)) {
            error = where + "unknown argument kind " + shown(words[1]);
            return false;
        }
        if (!m_options.emplace(std::string(words[0]), kind).second) {
            error = where + "option " + shown(words[0]) + " listed twice";
            return false;
        }
    }
    if (m_options.empty()) {
        error = "no options listed";
        return false;
    }
    m_usable = true;
    return true;
}

std::string Ptp4lAllowList::check(std::string_view value) const
{
    // Control bytes and anything beyond ASCII refuse the value whole: a line
    // end would start a second line in ptp4l's option file. The refusal names
    // the run of such bytes.
    const auto bad =
        std::find_if(value.begin(), value.end(), [](char c) { return !isPrintable(c) && c != '\t'; });
    if (bad != value.end()) {
        const auto endOfRun =
            std::find_if(bad, value.end(), [](char c) { return isPrintable(c) || c == '\t'; });
        const std::string_view run(&*bad, static_cast<std::size_t>(endOfRun - bad));
        return (run.size() == 1 ? "byte " : "bytes ") + shown(run) + (run.size() == 1 ? " is" : " are") +
               " not allowed";
    }
    if (value.size() > kMaxValueBytes) {
        return "longer than " + std::to_string(kMaxValueBytes) + " bytes";
    }
    const std::vector<std::string_view> tokens = splitBlanks(value);
    if (tokens.empty()) {
        return {};
    }
    if (!m_usable) {
        return "no ptp4l option can be checked: the option allow-list could not be loaded";
    }
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        const std::string_view token = tokens[i];
        if (token.size() < 2 || token.front() != '-') {
            return shown(token) + " is not a ptp4l option";
        }
        const bool isLong = token.compare(0, 2, "--") == 0;
        const std::size_t equals = isLong ? token.find('=') : std::string_view::npos;
        const std::string_view name = token.substr(0, equals);
        const auto option = m_options.find(name);
        if (option == m_options.end()) {
            return shown(token) + " is not an allowed ptp4l option";
        }
        const Argument kind = option->second;
        if (equals != std::string_view::npos) {
            if (kind == Argument::None) {
                return shown(token) + ": " + std::string(name) + " takes no argument";
            }
            if (!matches(kind, token.substr(equals + 1))) {
                return shown(token) + ": " + std::string(name) + " takes " + describe(kind);
            }
            continue;
        }
        if (kind == Argument::None) {
            continue;
        }
        if (i + 1 == tokens.size()) {
            return shown(token) + " needs an argument, " + describe(kind);
        }
        const std::string_view argument = tokens[++i];
        if (!matches(kind, argument)) {
            return shown(argument) + " is not a valid argument of " + std::string(name) + ", which takes " +
                   describe(kind);
        }
    }
    return {};
}

}  // namespace orv::services
