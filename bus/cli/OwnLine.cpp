#include "OwnLine.h"

#include "JsonText.h"

namespace vela::cli {

namespace {

constexpr const char* kBlanks = " \t\r";

// Next blank-separated word of line from pos on; empty at the end.
std::string word(const std::string& line, std::size_t& pos)
{
    std::size_t start = line.find_first_not_of(kBlanks, pos);
    if (start == std::string::npos) {
        pos = line.size();
        return {};
    }
    std::size_t end = line.find_first_of(kBlanks, start);
    if (end == std::string::npos) {
        end = line.size();
    }
    pos = end;
    return line.substr(start, end - start);
}

}  // namespace

bool parseOwnLine(const std::string& line, OwnLine& out, std::string& error)
{
    out = OwnLine{};
    std::size_t pos = 0;
    const std::string op = word(line, pos);
    if (op.empty() || op[0] == '#') {
        return true;
    }
    if (op == "add") {
        out.op = OwnLine::Op::kAdd;
    } else if (op == "change") {
        out.op = OwnLine::Op::kChange;
    } else if (op == "remove") {
        out.op = OwnLine::Op::kRemove;
    } else {
        error = "unknown operation '" + op + "' (add, change, remove)";
        return false;
    }
    out.path = word(line, pos);
    if (out.path.empty()) {
        error = op + " needs a path";
        return false;
    }
    std::size_t rest = line.find_first_not_of(kBlanks, pos);
    std::string json = rest == std::string::npos ? std::string() : line.substr(rest);
    while (!json.empty() && (json.back() == ' ' || json.back() == '\t' || json.back() == '\r')) {
        json.pop_back();
    }
    if (out.op == OwnLine::Op::kRemove) {
        if (!json.empty()) {
            error = "remove takes only a path";
            return false;
        }
        return true;
    }
    if (json.empty()) {
        error = op + " needs a JSON value";
        return false;
    }
    std::string reason;
    if (!parseJson(json, &out.value, &reason)) {
        error = "invalid JSON: " + reason;
        return false;
    }
    return true;
}

}  // namespace vela::cli
