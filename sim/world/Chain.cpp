// The chain-file reader. The format it accepts is documented in
// docs/chain-files.md; keep the two in step.
#include "tsdsim/Chain.h"
#include "tsdsim/Faults.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "tsdsim/ScriptRecorder.h"

namespace tsdsim {

namespace {

// Splits a line into words; double quotes group blanks into one word (the
// quotes themselves are dropped, also inside key="value").
std::vector<std::string> tokenize(const std::string& line, int lineNo)
{
    std::vector<std::string> words;
    std::string cur;
    bool inWord = false;
    bool quoted = false;
    for (char c : line) {
        if (quoted) {
            if (c == '"') {
                quoted = false;
            } else {
                cur += c;
            }
            continue;
        }
        if (c == '#') {
            break;
        }
        if (c == '"') {
            quoted = true;
            inWord = true;
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r') {
            if (inWord) {
                words.push_back(cur);
                cur.clear();
                inWord = false;
            }
            continue;
        }
        cur += c;
        inWord = true;
    }
    if (quoted) {
        throw ChainError(lineNo, "unterminated quote");
    }
    if (inWord) {
        words.push_back(cur);
    }
    return words;
}

double number(const std::string& text, int line, const std::string& what)
{
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || v != v) {
        throw ChainError(line, "bad number for " + what + ": '" + text + "'");
    }
    return v;
}

unsigned long unsignedNumber(const std::string& text, int line, const std::string& what, int base = 10)
{
    errno = 0;
    char* end = nullptr;
    if (text.empty() || text[0] == '-') {
        throw ChainError(line, "bad number for " + what + ": '" + text + "'");
    }
    unsigned long v = std::strtoul(text.c_str(), &end, base);
    if (*end != '\0' || errno != 0) {
        throw ChainError(line, "bad number for " + what + ": '" + text + "'");
    }
    return v;
}

std::pair<std::string, std::string> keyValue(const std::string& word, int line)
{
    std::size_t eq = word.find('=');
    if (eq == std::string::npos || eq == 0) {
        throw ChainError(line, "expected key=value, got '" + word + "'");
    }
    return {word.substr(0, eq), word.substr(eq + 1)};
}

bool validName(const std::string& name)
{
    if (name.empty() || name.size() > 32) {
        return false;
    }
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
    });
}

const Chain::ModuleEntry* findModule(const Chain& chain, const std::string& name)
{
    for (const auto& m : chain.modules) {
        if (m.setup.name == name) {
            return &m;
        }
    }
    return nullptr;
}

bool hasBus(const Chain& chain, const std::string& name)
{
    return std::find(chain.buses.begin(), chain.buses.end(), name) != chain.buses.end();
}

}  // namespace

bool applyParamKey(SyncParam& p, const std::string& key, const std::string& value, int line)
{
    if (key == "timesource") {
        p.timesource = value;
    } else if (key == "threshold") {
        p.threshold = number(value, line, key);
    } else if (key == "ptp4l") {
        p.ptp4l = value;
    } else if (key == "ntpserver") {
        p.ntpserver = value;
    } else {
        return false;
    }
    return true;
}

bool opensElection(const Chain::Event& event)
{
    static const std::set<std::string> electing{"unplug", "replug", "cut", "plug", "move", "flap", "param", "start-tsd"};
    return !event.words.empty() && electing.count(event.words[0]) != 0;
}

std::string Chain::Event::text() const
{
    std::string t;
    for (const auto& w : words) {
        t += (t.empty() ? "" : " ") + w;
    }
    return t;
}

ChainError::ChainError(int line, const std::string& message)
    : std::runtime_error(line > 0 ? "line " + std::to_string(line) + ": " + message : message), m_line(line)
{
}

std::string checkPort(const Chain& chain, const std::string& action, const std::string& port)
{
    std::size_t dot = port.rfind('.');
    if (dot == std::string::npos) {
        return action + ": port must be MODULE.rear or MODULE.front";
    }
    std::string mod = port.substr(0, dot);
    std::string side = port.substr(dot + 1);
    const auto* m = findModule(chain, mod);
    if (!m) {
        return action + ": unknown module '" + mod + "'";
    }
    if (side == "rear") {
        return m->rearBus.empty() ? action + ": module '" + mod + "' has no rear port" : "";
    }
    if (side == "front") {
        return m->frontBus.empty() ? action + ": module '" + mod + "' has no front port" : "";
    }
    return action + ": port must be MODULE.rear or MODULE.front";
}

std::string checkEvent(const Chain& chain, const Chain::Event& e)
{
    const auto& w = e.words;
    if (w.empty()) {
        return "empty event";
    }
    const std::string& a = w[0];
    auto needModule = [&](std::size_t i) -> std::string {
        if (w.size() <= i) {
            return a + ": module name missing";
        }
        return findModule(chain, w[i]) ? "" : a + ": unknown module '" + w[i] + "'";
    };
    auto needBus = [&](std::size_t i) -> std::string {
        if (w.size() <= i) {
            return a + ": bus name missing";
        }
        return hasBus(chain, w[i]) ? "" : a + ": unknown bus '" + w[i] + "'";
    };
    if (a == "unplug" || a == "replug" || a == "kill-velad" || a == "start-velad" || a == "kill-tsd" ||
        a == "stop-tsd" || a == "start-tsd") {
        if (w.size() != 2) {
            return a + " takes one module name";
        }
        return needModule(1);
    }
    if (a == "cut" || a == "plug") {
        if (w.size() != 2) {
            return a + " takes one port, MODULE.rear or MODULE.front";
        }
        return checkPort(chain, a, w[1]);
    }
    if (a == "param") {
        std::string err = needModule(1);
        if (!err.empty()) {
            return err;
        }
        if (w.size() < 3) {
            return "param needs at least one of timesource=, threshold=, ptp4l=, ntpserver=";
        }
        SyncParam p;
        for (std::size_t i = 2; i < w.size(); ++i) {
            try {
                auto kv = keyValue(w[i], e.line);
                if (!applyParamKey(p, kv.first, kv.second, e.line)) {
                    return "param: unknown key '" + kv.first + "'";
                }
            } catch (const ChainError& ex) {
                return ex.what();
            }
        }
        return "";
    }
    if (a == "loss" || a == "dup" || a == "delay") {
        if (w.size() != 3) {
            return a + " takes a bus name and a number";
        }
        std::string err = needBus(1);
        if (!err.empty()) {
            return err;
        }
        char* end = nullptr;
        double v = std::strtod(w[2].c_str(), &end);
        if (w[2].empty() || *end != '\0' || v < 0 || (a != "delay" && v > 1)) {
            return a + ": bad value '" + w[2] + "'" + (a == "delay" ? " (ms, >= 0)" : " (rate 0..1)");
        }
        return "";
    }
    if (a == "script") {
        if (w.size() != 4) {
            return "script takes a module, a script name and an exit status";
        }
        std::string err = needModule(1);
        if (!err.empty()) {
            return err;
        }
        const auto& scripts = ScriptRecorder::scriptNames();
        if (std::find(scripts.begin(), scripts.end(), w[2]) == scripts.end()) {
            return "script: unknown script '" + w[2] + "'";
        }
        char* end = nullptr;
        long st = std::strtol(w[3].c_str(), &end, 10);
        if (w[3].empty() || *end != '\0' || st < 0 || st > 255) {
            return "script: bad exit status '" + w[3] + "'";
        }
        return "";
    }
    if (Faults::handles(a)) {
        return checkFaultEvent(chain, e);
    }
    return "unknown event '" + a + "'";
}

Chain parseChain(const std::string& text)
{
    Chain chain;
    std::vector<std::pair<std::string, unsigned>> moduleLevels = ModuleSetup{}.moduleLevels;
    std::vector<std::pair<std::string, unsigned>> sourceLevels = ModuleSetup{}.sourceLevels;
    bool durationSet = false;
    std::set<std::uint32_t> uuids;
    std::istringstream in(text);
    std::string raw;
    int lineNo = 0;
    while (std::getline(in, raw)) {
        ++lineNo;
        auto w = tokenize(raw, lineNo);
        if (w.empty()) {
            continue;
        }
        const std::string& kw = w[0];
        if (kw == "duration") {
            if (w.size() != 2) {
                throw ChainError(lineNo, "duration takes one number of seconds");
            }
            chain.duration = number(w[1], lineNo, "duration");
            if (chain.duration <= 0 || chain.duration > 86400) {
                throw ChainError(lineNo, "duration must be between 0 and 86400 seconds");
            }
            durationSet = true;
        } else if (kw == "services") {
            if (w.size() != 2 || (w[1] != "real" && w[1] != "recording")) {
                throw ChainError(lineNo, "services takes real or recording");
            }
            chain.services = w[1] == "real" ? Services::Real : Services::Recording;
        } else if (kw == "levels") {
            if (w.size() < 3 || (w[1] != "module" && w[1] != "source")) {
                throw ChainError(lineNo, "levels module|source NAME=LEVEL ...");
            }
            if (!chain.modules.empty()) {
                throw ChainError(lineNo, "levels must come before the first module");
            }
            auto& levels = w[1] == "module" ? moduleLevels : sourceLevels;
            levels.clear();
            for (std::size_t i = 2; i < w.size(); ++i) {
                auto kv = keyValue(w[i], lineNo);
                if (!validName(kv.first)) {
                    throw ChainError(lineNo, "bad level name '" + kv.first + "'");
                }
                levels.emplace_back(kv.first,
                                    static_cast<unsigned>(unsignedNumber(kv.second, lineNo, kv.first)));
            }
        } else if (kw == "bus") {
            if (w.size() != 2 || !validName(w[1])) {
                throw ChainError(lineNo, "bus takes one name (letters, digits, - and _)");
            }
            if (hasBus(chain, w[1])) {
                throw ChainError(lineNo, "bus '" + w[1] + "' declared twice");
            }
            chain.buses.push_back(w[1]);
        } else if (kw == "module") {
            if (w.size() < 2 || !validName(w[1])) {
                throw ChainError(lineNo, "module takes a name (letters, digits, - and _) and keys");
            }
            if (findModule(chain, w[1])) {
                throw ChainError(lineNo, "module '" + w[1] + "' declared twice");
            }
            Chain::ModuleEntry m;
            m.line = lineNo;
            m.setup.name = w[1];
            m.setup.moduleLevels = moduleLevels;
            m.setup.sourceLevels = sourceLevels;
            bool haveUuid = false;
            for (std::size_t i = 2; i < w.size(); ++i) {
                auto kv = keyValue(w[i], lineNo);
                const auto& k = kv.first;
                const auto& v = kv.second;
                if (k == "uuid") {
                    unsigned long u = unsignedNumber(v, lineNo, "uuid", 16);
                    if (u == 0 || u > 0xFFFFFF) {
                        throw ChainError(lineNo, "uuid must be 1..ffffff (hex)");
                    }
                    m.setup.uuid = static_cast<std::uint32_t>(u);
                    haveUuid = true;
                } else if (k == "type") {
                    m.setup.type = v;
                } else if (k == "rear" || k == "front") {
                    if (!hasBus(chain, v)) {
                        throw ChainError(lineNo, "unknown bus '" + v + "' (declare it with 'bus' first)");
                    }
                    (k == "rear" ? m.rearBus : m.frontBus) = v;
                } else if (k == "group") {
                    m.setup.group = v;
                } else if (k == "port") {
                    unsigned long p = unsignedNumber(v, lineNo, "port");
                    if (p == 0 || p > 65534) {
                        throw ChainError(lineNo, "port must be 1..65534");
                    }
                    m.setup.port = static_cast<unsigned>(p);
                } else if (k == "param") {
                    if (v != "yes" && v != "no") {
                        throw ChainError(lineNo, "param must be yes or no");
                    }
                    m.setup.publishParam = v == "yes";
                } else if (k == "tsdargs") {
                    std::istringstream args(v);
                    m.tsdArgs.clear();
                    std::string a;
                    while (args >> a) {
                        m.tsdArgs.push_back(a);
                    }
                } else if (!applyParamKey(m.setup.param, k, v, lineNo)) {
                    throw ChainError(lineNo, "unknown module key '" + k + "'");
                }
            }
            if (!haveUuid) {
                throw ChainError(lineNo, "module '" + w[1] + "' needs uuid=HEX");
            }
            if (!uuids.insert(m.setup.uuid).second) {
                throw ChainError(lineNo, "uuid " + m.setup.label().substr(6) + " used twice");
            }
            chain.modules.push_back(m);
        } else if (kw == "at") {
            if (w.size() < 3) {
                throw ChainError(lineNo, "at SECONDS EVENT ...");
            }
            Chain::Event e;
            e.line = lineNo;
            e.time = number(w[1], lineNo, "time");
            if (e.time < 0) {
                throw ChainError(lineNo, "event time must not be negative");
            }
            e.words.assign(w.begin() + 2, w.end());
            std::string err = checkEvent(chain, e);
            if (!err.empty()) {
                throw ChainError(lineNo, err);
            }
            chain.events.push_back(e);
        } else {
            throw ChainError(lineNo, "unknown statement '" + kw + "'");
        }
    }
    if (chain.modules.empty()) {
        throw ChainError(0, "the chain has no module");
    }
    std::stable_sort(chain.events.begin(), chain.events.end(),
                     [](const Chain::Event& a, const Chain::Event& b) { return a.time < b.time; });
    if (durationSet) {
        for (const auto& e : chain.events) {
            if (e.time > chain.duration) {
                throw ChainError(e.line, "event after the end of the run (duration " +
                                             std::to_string(chain.duration) + " s)");
            }
        }
    }
    return chain;
}

Chain loadChain(const std::string& path)
{
    std::ifstream in(path);
    if (!in) {
        throw ChainError(0, "cannot read chain file " + path);
    }
    std::ostringstream s;
    s << in.rdbuf();
    return parseChain(s.str());
}

Chain defaultChain(int n, double duration)
{
    Chain chain;
    chain.duration = duration;
    chain.buses.push_back("chain");
    for (int i = 1; i <= n; ++i) {
        Chain::ModuleEntry m;
        m.setup.name = "m" + std::to_string(i);
        m.setup.uuid = static_cast<std::uint32_t>(0x000100 + i);
        m.rearBus = "chain";
        chain.modules.push_back(m);
    }
    return chain;
}

}  // namespace tsdsim
