#include "tsdsim/Scenario.h"

#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <iomanip>
#include <set>
#include <sstream>
#include <thread>

namespace tsdsim {

namespace {

const char* modeName(int mode)
{
    switch (mode) {
        case 1:
            return "alone";
        case 2:
            return "slave";
        case 3:
            return "master";
        default:
            return "unknown";
    }
}

std::string hex6(unsigned v)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%06X", v & 0xFFFFFFu);
    return buf;
}

std::string seconds(double t)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f s", t);
    return buf;
}

std::string pad(const std::string& s, std::size_t width)
{
    return s.size() >= width ? s + " " : s + std::string(width - s.size(), ' ');
}

std::string joined(const std::vector<std::string>& names)
{
    std::string out;
    for (std::size_t i = 0; i < names.size(); ++i) {
        out += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    }
    return out;
}

std::string describeStatus(int status)
{
    if (status < 0) {
        return "did not end in time";
    }
    if (WIFEXITED(status)) {
        return "exit " + std::to_string(WEXITSTATUS(status));
    }
    if (WIFSIGNALED(status)) {
        return "killed by signal " + std::to_string(WTERMSIG(status));
    }
    return "status " + std::to_string(status);
}

}  // namespace

Scenario::Scenario(const Chain& chain, const World::Options& options) : m_chain(chain), m_options(options)
{
    m_options.services = chain.services;
}

Scenario::~Scenario()
{
    if (m_world && !m_finished) {
        finish();
    }
    m_faults.reset();
}

double Scenario::now() const
{
    if (!m_world || m_startOffset < 0) {
        return 0;
    }
    return m_world->now() - m_startOffset;
}

void Scenario::build()
{
    m_world = std::make_unique<World>(m_options);
    m_faults = std::make_unique<Faults>(*m_world);
    for (const auto& b : m_chain.buses) {
        m_world->addBus(b);
    }
    for (const auto& e : m_chain.modules) {
        Module& m = m_world->addModule(e.setup);
        if (!e.rearBus.empty()) {
            m.addInterface(Side::Rear, *m_world->findBus(e.rearBus));
        }
        if (!e.frontBus.empty()) {
            m.addInterface(Side::Front, *m_world->findBus(e.frontBus));
        }
    }
    m_world->updateReachable();
}

void Scenario::note(const std::string& what, bool election, const std::string& refused)
{
    m_happenings.push_back({now(), what, election, refused});
}

bool Scenario::run(const std::function<void()>& onTick, std::chrono::milliseconds tick,
                   const std::function<void(const std::string&)>& onEvent)
{
    m_startOffset = m_world->now();
    if (!m_world->startPlatforms(&m_startError)) {
        return false;
    }
    m_world->prepareTimeServices();
    for (std::size_t i = 0; i < m_chain.modules.size(); ++i) {
        Module& m = *m_world->modules()[i];
        if (!m.startTsd(m_chain.modules[i].tsdArgs)) {
            m_startError = m.name() + ": " + m.startError();
            return false;
        }
    }
    note("start", true);
    if (onEvent) {
        onEvent("start");
    }
    std::size_t next = 0;
    auto lastTick = std::chrono::steady_clock::now();
    if (onTick) {
        onTick();
    }
    while (now() < m_chain.duration) {
        if (World::stopRequested()) {
            m_interrupted = true;
            break;
        }
        while (next < m_chain.events.size() && m_chain.events[next].time <= now()) {
            const auto& ev = m_chain.events[next++];
            std::string err = apply(ev);
            if (onEvent) {
                onEvent(err.empty() ? ev.text() : ev.text() + " (failed: " + err + ")");
            }
        }
        m_faults->tick();
        m_world->maintain();
        auto t = std::chrono::steady_clock::now();
        if (t - lastTick >= tick) {
            lastTick = t;
            pollFollowed();
            if (onTick) {
                onTick();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string Scenario::apply(const Chain::Event& event)
{
    std::string err = checkEvent(m_chain, event);
    if (!err.empty()) {
        return err;
    }
    const auto& w = event.words;
    const std::string& a = w[0];
    World& world = *m_world;
    if (Faults::handles(a)) {
        err = m_faults->apply(w);
        if (err.empty()) {
            note(event.text(), opensElection(event));
        }
        return err;
    }
    if (a == "loss" || a == "dup" || a == "delay") {
        Bus& bus = *world.findBus(w[1]);
        double v = std::stod(w[2]);
        if (a == "loss") {
            bus.setLoss(v);
        } else if (a == "dup") {
            bus.setDuplicate(v);
        } else {
            bus.setDelay(std::chrono::milliseconds(static_cast<long>(v)));
        }
        note(event.text(), opensElection(event));
        return "";
    }
    if (a == "cut" || a == "plug") {
        std::size_t dot = w[1].rfind('.');
        Module& m = *world.findModule(w[1].substr(0, dot));
        Side side = w[1].substr(dot + 1) == "rear" ? Side::Rear : Side::Front;
        world.setCut(m, side, a == "cut");
        note(event.text(), opensElection(event));
        return "";
    }
    Module& m = *world.findModule(w[1]);
    if (a == "unplug") {
        world.unplug(m);
    } else if (a == "replug") {
        world.replug(m);
    } else if (a == "param") {
        // The keys given, as an operator would send them; tsdparamd merges
        // them into the module's value and checks the whole.
        Json::Value request(Json::objectValue);
        for (std::size_t i = 2; i < w.size(); ++i) {
            const std::size_t eq = w[i].find('=');
            const std::string key = w[i].substr(0, eq);
            SyncParam typed;
            applyParamKey(typed, key, w[i].substr(eq + 1));
            request[key] = typed.toJson()[key];
        }
        const Module::ParamAnswer answer = m.setParam(request);
        if (!answer.accepted) {
            // Nothing changed, so no election; the refusal stays on record.
            note(event.text(), false, answer.message);
            return "refused: " + answer.message;
        }
    } else if (a == "kill-velad") {
        m.stopVelad(SIGKILL);
    } else if (a == "start-velad") {
        if (!m.startVelad()) {
            return "velad did not start";
        }
        m.maintain();
    } else if (a == "kill-tsd") {
        m.stopTsd(SIGKILL);
    } else if (a == "stop-tsd") {
        int st = m.stopTsd(SIGTERM);
        m_tsdExit[m.name()] = st;
    } else if (a == "start-tsd") {
        const Chain::ModuleEntry* entry = nullptr;
        for (const auto& e : m_chain.modules) {
            if (e.setup.name == m.name()) {
                entry = &e;
            }
        }
        if (!m.startTsd(entry ? entry->tsdArgs : std::vector<std::string>{})) {
            return "tsd did not start";
        }
    } else if (a == "script") {
        m.setScriptStatus(w[2], std::stoi(w[3]));
    }
    note(event.text(), opensElection(event));
    return "";
}

void Scenario::finish()
{
    if (!m_world || m_finished) {
        return;
    }
    m_finished = true;
    m_faults->endAll();
    for (auto& m : m_world->modules()) {
        m_final[m->name()] = Final{m->state("sync/app"), m->state("sync/master"), m->states("sync/errors/")};
    }
    // All daemons get SIGTERM at once, then each is awaited.
    for (auto& m : m_world->modules()) {
        if (m->tsdRunning()) {
            ::kill(m->tsdPid(), SIGTERM);
        }
    }
    for (auto& m : m_world->modules()) {
        if (m->tsdPid() > 0) {
            m_tsdExit[m->name()] = m->stopTsd(SIGTERM, std::chrono::seconds(10));
        }
    }
    note("stop", false);
    m_world->stopAll();
}

std::string Scenario::service(const Module& m) const
{
    std::string running = "-";
    for (const auto& c : m.scriptCalls()) {
        running = timeServiceAfter(running, c.script, c.args);
    }
    return running;
}

RunTimeline Scenario::timeline() const
{
    std::map<std::string, RunTimeline::ModuleHistory> history;
    for (const auto& mp : m_world->modules()) {
        const Module& m = *mp;
        RunTimeline::ModuleHistory& h = history[m.name()];
        h.rear = m.hasInterface(Side::Rear);
        h.front = m.hasInterface(Side::Front);
        for (const auto& e : m.events()) {
            if (e.path == "sync/app") {
                h.app.push_back({e.time - m_startOffset, e.event == "remove", e.value});
            }
        }
    }
    return RunTimeline::build(summary(), history);
}

void Scenario::pollFollowed()
{
    if (!m_world->realServices()) {
        return;
    }
    m_world->pollFollowed();
    Following f;
    f.time = now();
    for (const auto& m : m_world->modules()) {
        f.followed[m->name()] = followedName(*m);
    }
    m_following.push_back(std::move(f));
}

Json::Value Scenario::followedAt(const Json::Value& results, double from, double to) const
{
    // The module each module elected, by name, from the label it published.
    std::map<std::string, std::string> elected;
    for (const auto& name : results.getMemberNames()) {
        const std::string label = results[name]["master"].asString();
        for (const auto& m : m_world->modules()) {
            if (m->setup().label() == label) {
                elected[name] = m->name();
            }
        }
        if (!elected.count(name)) {
            return Json::Value();
        }
    }
    if (elected.empty()) {
        return Json::Value();
    }
    for (const auto& f : m_following) {
        if (f.time < from || f.time >= to) {
            continue;
        }
        bool all = true;
        for (const auto& [name, master] : elected) {
            const auto it = f.followed.find(name);
            if (it == f.followed.end() || it->second != master) {
                all = false;
                break;
            }
        }
        if (all) {
            return f.time;
        }
    }
    return Json::Value();
}

std::string Scenario::followedName(const Module& m) const
{
    const Module* master = m_world->followed(m);
    return master ? master->name() : "";
}

std::string Scenario::table() const
{
    std::ostringstream t;
    t << pad("MODULE", 8) << pad("UUID", 8) << pad("REAR", 16) << pad("FRONT", 16) << pad("THRESH", 7)
      << pad("SERVICE", 8);
    const bool real = m_world->realServices();
    if (real) {
        // Whose time the module's ptp4l takes.
        t << pad("FOLLOWS", 9);
    }
    t << pad("ERRORS", 10) << pad("STATUS", 11) << "LAST CHANGE\n";
    for (const auto& mp : m_world->modules()) {
        Module& m = *mp;
        Json::Value app = m.state("sync/app");
        auto side = [&](const char* mode, const char* master, Side s) -> std::string {
            if (!m.hasInterface(s)) {
                return "-";
            }
            if (app.isNull()) {
                return "?";
            }
            int md = app[mode].asInt();
            std::string out = modeName(md);
            if (md >= 2) {
                out += " " + hex6(app[master].asUInt());
            }
            return out;
        };
        std::string errors;
        for (const auto& e : m.states("sync/errors/")) {
            errors += (errors.empty() ? "" : ",") + e.first.substr(std::string("sync/errors/").size());
        }
        std::string status = "up";
        bool cutAll = true;
        for (Side s : {Side::Rear, Side::Front}) {
            if (m.hasInterface(s) && !m_world->isCut(m, s)) {
                cutAll = false;
            }
        }
        if (!m.veladRunning()) {
            status = "velad down";
        } else if (!m.tsdRunning()) {
            status = "tsd down";
        } else if (cutAll) {
            status = "unplugged";
        }
        std::string last = "-";
        auto events = m.events();
        for (auto it = events.rbegin(); it != events.rend(); ++it) {
            if (it->path.rfind("sync/", 0) == 0 && it->path != "sync/param") {
                last = seconds(it->time - m_startOffset) + " " + it->path;
                break;
            }
        }
        char thr[16];
        std::snprintf(thr, sizeof thr, "%.1f", m.param().threshold);
        t << pad(m.name(), 8) << pad(hex6(m.setup().uuid), 8)
          << pad(side("mode_back", "master_uuid_back", Side::Rear), 16)
          << pad(side("mode_front", "master_uuid_front", Side::Front), 16) << pad(thr, 7)
          << pad(service(m), 8);
        if (real) {
            const std::string followed = followedName(m);
            t << pad(followed.empty() ? "-" : followed, 9);
        }
        t << pad(errors.empty() ? "-" : errors, 10) << pad(status, 11) << last << "\n";
    }
    return t.str();
}

std::vector<Scenario::Election> Scenario::elections() const
{
    std::vector<Election> out;
    for (const auto& h : m_happenings) {
        if (h.election) {
            out.push_back({h.time, h.what});
        }
    }
    return out;
}

Json::Value Scenario::summary() const
{
    Json::Value s(Json::objectValue);
    s["duration"] = now();
    s["interrupted"] = m_interrupted;
    Json::Value happenings(Json::arrayValue);
    for (const auto& h : m_happenings) {
        Json::Value e;
        e["time"] = h.time;
        e["event"] = h.what;
        if (!h.refused.empty()) {
            e["refused"] = h.refused;
        }
        happenings.append(e);
    }
    s["timeline"] = happenings;

    Json::Value modules(Json::arrayValue);
    for (const auto& mp : m_world->modules()) {
        const Module& m = *mp;
        Json::Value j;
        j["name"] = m.name();
        j["uuid"] = hex6(m.setup().uuid);
        j["label"] = m.setup().label();
        j["type"] = m.setup().type;
        auto fin = m_final.find(m.name());
        bool done = fin != m_final.end();
        j["syncApp"] = done ? fin->second.app : m.state("sync/app");
        j["syncMaster"] = done ? fin->second.master : m.state("sync/master");
        Json::Value active(Json::arrayValue);
        for (const auto& e : done ? fin->second.errors : m.states("sync/errors/")) {
            active.append(e.second);
        }
        j["activeErrors"] = active;
        Json::Value seen(Json::arrayValue);
        for (const auto& e : m.events()) {
            if (e.path.rfind("sync/errors/", 0) == 0 && e.event != "change") {
                Json::Value x;
                x["time"] = e.time - m_startOffset;
                x["event"] = e.event == "add" ? "raised" : "cleared";
                x["code"] = e.path.substr(std::string("sync/errors/").size());
                if (e.event == "add") {
                    x["txt"] = e.value["txt"];
                    x["info"] = e.value["info"];
                }
                seen.append(x);
            }
        }
        j["errorsSeen"] = seen;
        Json::Value calls(Json::arrayValue);
        for (const auto& c : m.scriptCalls()) {
            Json::Value x;
            x["time"] = c.time - m_startOffset;
            x["script"] = c.script;
            x["args"] = c.args;
            calls.append(x);
        }
        j["scriptCalls"] = calls;
        j["service"] = service(m);
        if (m_world->realServices()) {
            const std::string followed = followedName(m);
            j["followedMaster"] = followed.empty() ? Json::Value() : Json::Value(followed);
        }
        auto ex = m_tsdExit.find(m.name());
        if (ex != m_tsdExit.end()) {
            j["tsdExit"] = ex->second >= 0 && WIFEXITED(ex->second) ? Json::Value(WEXITSTATUS(ex->second))
                                                                    : Json::Value(describeStatus(ex->second));
        }
        modules.append(j);
    }
    s["modules"] = modules;

    Json::Value elections(Json::arrayValue);
    auto list = this->elections();
    for (std::size_t i = 0; i < list.size(); ++i) {
        double from = list[i].opened;
        double to = i + 1 < list.size() ? list[i + 1].opened : 1e18;
        Json::Value e;
        e["trigger"] = list[i].trigger;
        e["started"] = from;
        Json::Value results(Json::objectValue);
        std::set<std::string> masters;
        for (const auto& mp : m_world->modules()) {
            const Module& m = *mp;
            double last = -1;
            std::string master;
            for (const auto& ev : m.events()) {
                double t = ev.time - m_startOffset;
                if (t > to) {
                    break;
                }
                if (ev.path == "sync/master" && ev.event != "remove") {
                    master = ev.value.asString();
                }
                if (t >= from && (ev.path == "sync/app" || ev.path == "sync/master") &&
                    ev.event == "change") {
                    last = t;
                }
            }
            if (last >= 0) {
                Json::Value r;
                r["time"] = last;
                r["master"] = master;
                results[m.name()] = r;
                masters.insert(master);
            }
        }
        e["results"] = results;
        e["master"] = masters.size() == 1 ? Json::Value(*masters.begin()) : Json::Value();
        if (m_world->realServices()) {
            e["followedAt"] = followedAt(results, from, to);
        }
        elections.append(e);
    }
    s["elections"] = elections;
    return s;
}

std::string Scenario::summaryText() const
{
    Json::Value s = summary();
    std::ostringstream o;
    std::map<std::string, std::string> nameOfLabel;
    for (const auto& m : s["modules"]) {
        nameOfLabel[m["label"].asString()] = m["name"].asString();
    }
    auto who = [&](const std::string& label) {
        auto it = nameOfLabel.find(label);
        return it == nameOfLabel.end() ? label : it->second + " (" + label + ")";
    };
    o << s["modules"].size() << " simulated modules ran for " << seconds(s["duration"].asDouble())
      << (s["interrupted"].asBool() ? ", stopped early by Ctrl-C" : "") << ".\n\n";

    // In short: who led after each election, in one paragraph.
    std::string brief;
    for (const auto& e : s["elections"]) {
        if (e["results"].empty()) {
            continue;
        }
        std::map<std::string, std::vector<std::string>> byMaster;
        double latest = 0;
        for (const auto& name : e["results"].getMemberNames()) {
            byMaster[e["results"][name]["master"].asString()].push_back(name);
            latest = std::max(latest, e["results"][name]["time"].asDouble() - e["started"].asDouble());
        }
        // The master most modules chose is the chain's; the others are on their own.
        auto main = std::max_element(byMaster.begin(), byMaster.end(), [](const auto& a, const auto& b) {
            return a.second.size() < b.second.size();
        });
        std::string sentence =
            e["trigger"].asString() == "start"
                ? "After the start the chain agreed on " + who(main->first) + " as its sync master"
                : "After \"" + e["trigger"].asString() + "\" at " + seconds(e["started"].asDouble()) + ", " +
                      joined(main->second) + " agreed on " + who(main->first);
        brief += "  " + sentence + " (within " + seconds(latest) + ").";
        for (const auto& bm : byMaster) {
            if (&bm != &*main && bm.second.size() == 1 && nameOfLabel[bm.first] == bm.second[0]) {
                brief += " " + bm.second[0] + ", on its own, serves itself.";
            }
        }
        brief += "\n";
    }
    if (!brief.empty()) {
        o << "In short:\n" << brief << "\n";
    }

    o << "What happened:\n";
    for (const auto& h : s["timeline"]) {
        o << "  at " << std::setw(6) << seconds(h["time"].asDouble()) << ": " << h["event"].asString();
        if (h.isMember("refused")) {
            o << " (refused: " << h["refused"].asString() << ")";
        }
        o << "\n";
    }
    o << "\nElections (the modules agree on one sync master; the others take their time from it):\n";
    int n = 0;
    for (const auto& e : s["elections"]) {
        ++n;
        o << "  " << n << ". after \"" << e["trigger"].asString() << "\" at "
          << seconds(e["started"].asDouble()) << ": ";
        if (e["results"].empty()) {
            o << "no module changed its result.\n";
            continue;
        }
        std::map<std::string, std::vector<std::string>> byMaster;
        double latest = 0;
        for (const auto& name : e["results"].getMemberNames()) {
            const auto& r = e["results"][name];
            byMaster[r["master"].asString()].push_back(name);
            latest = std::max(latest, r["time"].asDouble() - e["started"].asDouble());
        }
        bool first = true;
        for (const auto& bm : byMaster) {
            o << (first ? "" : "; ");
            first = false;
            std::string names;
            for (const auto& x : bm.second) {
                names += (names.empty() ? "" : ", ") + x;
            }
            if (bm.second.size() == 1 && nameOfLabel[bm.first] == bm.second[0]) {
                o << names << " chose itself";
            } else {
                o << names << " chose " << who(bm.first);
            }
        }
        o << " (settled within " << seconds(latest) << ")";
        if (e.isMember("followedAt")) {
            o << (e["followedAt"].isNull()
                      ? "; their ptp4l never all followed it"
                      : "; every module's ptp4l followed it at " + seconds(e["followedAt"].asDouble()));
        }
        o << ".\n";
    }
    o << "\nAt the end:\n";
    // Right after the start each daemon knows no other module yet and serves
    // time itself for a moment: worth saying, or the early script calls
    // look like a fault.
    bool earlyStarts = s["modules"].size() > 1;
    double firstResult = 1e18;
    if (!s["elections"].empty()) {
        for (const auto& name : s["elections"][0]["results"].getMemberNames()) {
            firstResult = std::min(firstResult, s["elections"][0]["results"][name]["time"].asDouble());
        }
    }
    for (const auto& m : s["modules"]) {
        bool started = false;
        for (const auto& c : m["scriptCalls"]) {
            started = started || (c["time"].asDouble() < firstResult && c["args"].asString() != "stop" &&
                                  c["script"].asString() != "stop_ntpd.sh");
        }
        earlyStarts = earlyStarts && started;
    }
    if (earlyStarts) {
        o << "  (Right after the start each module knows no other yet and starts its time service for a\n"
             "   moment; once the election is done only the master keeps it.)\n";
    }
    for (const auto& m : s["modules"]) {
        std::string name = m["name"].asString();
        o << "  " << name << ": ";
        const auto& app = m["syncApp"];
        if (app.isNull()) {
            o << "published nothing (no bus or no daemon)";
        } else {
            int mode = app["mode_back"].asInt();
            if (mode == 3) {
                o << "is the sync master";
            } else if (mode == 2) {
                o << "follows " << who("0A7C31" + hex6(app["master_uuid_back"].asUInt()));
            } else if (mode == 1) {
                o << "is alone on its bus";
            } else {
                o << "has no result yet";
            }
        }
        std::string svc = m["service"].asString();
        o << (svc == "ptp" ? ", runs PTP" : svc == "ntp" ? ", runs NTP" : ", runs no time service");
        if (m.isMember("followedMaster")) {
            const auto& f = m["followedMaster"];
            o << (f.isNull() ? ", its ptp4l follows no master"
                  : f.asString() == name ? ", its ptp4l is the grandmaster"
                                         : ", its ptp4l follows " + f.asString());
        }
        if (!m["activeErrors"].empty()) {
            o << ", active errors:";
            for (const auto& e : m["activeErrors"]) {
                o << " " << e["error"].asInt() << " (" << e["txt"].asString() << ")";
            }
        }
        if (m.isMember("tsdExit")) {
            o << "; tsd ended with "
              << (m["tsdExit"].isInt() ? "exit status " + std::to_string(m["tsdExit"].asInt())
                                       : m["tsdExit"].asString());
        }
        o << ".\n";
        // Pair each raised error with its clearing, in order.
        std::map<std::string, std::string> open;
        std::vector<std::string> errorLines;
        for (const auto& e : m["errorsSeen"]) {
            std::string code = e["code"].asString();
            if (e["event"] == "raised") {
                open[code] = "error " + code + " (" + e["txt"].asString() + ") raised at " +
                             seconds(e["time"].asDouble());
            } else if (open.count(code)) {
                errorLines.push_back(open[code] + ", cleared at " + seconds(e["time"].asDouble()));
                open.erase(code);
            }
        }
        for (const auto& o2 : open) {
            errorLines.push_back(o2.second + ", still active");
        }
        for (const auto& l : errorLines) {
            o << "      " << l << "\n";
        }
        std::string calls;
        for (const auto& c : m["scriptCalls"]) {
            calls += (calls.empty() ? "" : ", ") + c["script"].asString() +
                     (c["args"].asString().empty() ? "" : " " + c["args"].asString()) + " at " +
                     seconds(c["time"].asDouble());
        }
        if (!calls.empty()) {
            o << "      time-service scripts: " << calls << "\n";
        }
    }
    return o.str();
}

}  // namespace tsdsim
