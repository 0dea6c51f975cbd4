#include "CaseTable.h"

#include <gtest/gtest.h>

#include <fstream>

namespace servicetest {

std::string unescape(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        const char next = text[++i];
        if (next == 'n') {
            out += '\n';
        } else if (next == 't') {
            out += '\t';
        } else if (next == '\\') {
            out += '\\';
        } else if (next == 'x' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            ADD_FAILURE() << "unknown escape \\" << next << " in '" << text << "'";
        }
    }
    return out;
}

std::vector<TableCase> readCaseTable(const std::string& path, bool refusalsNameToken)
{
    std::ifstream in(path);
    EXPECT_TRUE(in.good()) << "cannot read " << path;
    std::vector<TableCase> cases;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t tab = line.find('\t');
        if (tab == std::string::npos) {
            ADD_FAILURE() << path << ":" << number << ": no TAB";
            continue;
        }
        TableCase c;
        c.line = number;
        const std::string kind = line.substr(0, tab);
        if (kind != "accept" && kind != "refuse") {
            ADD_FAILURE() << path << ":" << number << ": '" << kind << "' is neither accept nor refuse";
            continue;
        }
        c.accept = kind == "accept";
        std::string rest = line.substr(tab + 1);
        if (!c.accept && refusalsNameToken) {
            // The token follows the last TAB: tokens never hold a raw one.
            const std::size_t last = rest.rfind('\t');
            if (last == std::string::npos) {
                ADD_FAILURE() << path << ":" << number << ": a refusal without the token it must name";
                continue;
            }
            c.token = rest.substr(last + 1);
            rest.resize(last);
        }
        c.value = unescape(rest);
        cases.push_back(c);
    }
    return cases;
}

}  // namespace servicetest
