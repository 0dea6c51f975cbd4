// tsdsim --report: a run of real daemons drawn as one HTML page, loaded in a
// real headless Chromium without network. The browser must load the page
// without a single console message (a blocked load, a parse error) and its
// document must hold what the run's own summary says happened: a lane per
// module and side, the mode each module ended in, an election marker per
// election, a line per timeline event, a tick per script call.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "TsdsimRun.h"
#include "tsdsim/ChildProcess.h"

using namespace std::chrono_literals;
using simtest::readAll;
using simtest::runTsdsim;
using simtest::TempPath;

namespace {

// Start tags of the document whose class attribute is exactly cls, each as
// its attribute map.
std::vector<std::map<std::string, std::string>> elements(const std::string& document, const std::string& cls)
{
    static const std::regex tag("<g ([^>]*)>");
    static const std::regex attribute("([a-z-]+)=\"([^\"]*)\"");
    std::vector<std::map<std::string, std::string>> found;
    for (std::sregex_iterator t(document.begin(), document.end(), tag), end; t != end; ++t) {
        const std::string inside = (*t)[1];
        std::map<std::string, std::string> attrs;
        for (std::sregex_iterator a(inside.begin(), inside.end(), attribute); a != end; ++a) {
            attrs[(*a)[1]] = (*a)[2];
        }
        if (attrs["class"] == cls) {
            found.push_back(attrs);
        }
    }
    return found;
}

// Width and height of a PNG file, from its header; 0, 0 when it is none.
std::pair<unsigned, unsigned> pngSize(const std::string& bytes)
{
    if (bytes.size() < 24 || bytes.compare(1, 3, "PNG") != 0 || bytes.compare(12, 4, "IHDR") != 0) {
        return {0, 0};
    }
    auto be32 = [&](std::size_t at) {
        unsigned v = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            v = v << 8 | static_cast<unsigned char>(bytes[at + i]);
        }
        return v;
    };
    return {be32(16), be32(20)};
}

}  // namespace

TEST(TsdsimReport, ChromiumShowsEveryLaneElectionAndEventOfTheRun)
{
    TempPath work("report");
    std::filesystem::create_directories(work.path());
    const std::string chain = work.path() + "/run.chain";
    {
        std::ofstream f(chain);
        f << "duration 16\n"
             "bus chain\n"
             "module m1 uuid=000101 rear=chain\n"
             "module m2 uuid=000102 rear=chain\n"
             "module m3 uuid=000103 rear=chain\n"
             "at 7 unplug m3\n"
             "at 12 replug m3\n";
    }
    const std::string report = work.path() + "/run.html";
    std::string out;
    const int st = runTsdsim({"--json", "--report", report, chain}, &out, work.path() + "/tsdsim.log");
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st << readAll(work.path() + "/tsdsim.log");
    Json::Value summary;
    std::string errors;
    ASSERT_TRUE(simtest::parseJson(out, summary, errors)) << errors;
    const std::string html = readAll(report);
    ASSERT_NE(html.find("</html>"), std::string::npos);

    // The window holds the whole drawing: its height comes from the SVG's.
    std::smatch svgHeight;
    ASSERT_TRUE(std::regex_search(html, svgHeight, std::regex("<svg [^>]*height=\"([0-9]+)\"")));
    const unsigned width = 1220;
    const unsigned height = static_cast<unsigned>(std::stoul(svgHeight[1])) + 140;

    const std::string screenshot = work.path() + "/run.png";
    tsdsim::ChildProcess::Options o;
    // A network namespace of its own: the page could not reach anything even
    // if it tried.
    o.argv = {"/usr/bin/unshare",
              "--net",
              "/usr/bin/chromium",
              "--headless",
              "--no-sandbox",
              "--disable-gpu",
              "--disable-quic",
              "--no-first-run",
              "--disable-background-networking",
              "--disable-component-update",
              "--disable-sync",
              "--hide-scrollbars",
              "--enable-logging=stderr",
              "--user-data-dir=" + work.path() + "/profile",
              "--window-size=" + std::to_string(width) + "," + std::to_string(height),
              "--screenshot=" + screenshot,
              "--dump-dom",
              "file://" + report};
    o.outputFile = work.path() + "/chromium.log";
    std::string dom;
    const int cst = tsdsim::ChildProcess::run(o, &dom, 50s);
    const std::string log = readAll(o.outputFile);
    ASSERT_TRUE(WIFEXITED(cst) && WEXITSTATUS(cst) == 0) << cst << log;

    // Loaded without errors: the page has no script, so any console message
    // is the browser complaining (a load the page's policy blocked, a fault).
    EXPECT_EQ(log.find(":CONSOLE"), std::string::npos) << log;
    ASSERT_NE(dom.find("</svg>"), std::string::npos) << dom.substr(0, 400);
    const std::string png = readAll(screenshot);
    EXPECT_EQ(pngSize(png), std::make_pair(width, height));
    EXPECT_GT(png.size(), 20000u);  // a drawing, not an empty page
    if (const char* keep = std::getenv("TSDSIM_REPORT_SCREENSHOT")) {
        std::filesystem::copy_file(screenshot, keep, std::filesystem::copy_options::overwrite_existing);
    }

    // One lane per module (rear only in this chain), in the summary's order.
    const auto lanes = elements(dom, "lane");
    ASSERT_EQ(lanes.size(), summary["modules"].size());
    std::map<std::string, std::string> nameOfLabel;
    for (Json::ArrayIndex i = 0; i < summary["modules"].size(); ++i) {
        const Json::Value& m = summary["modules"][i];
        EXPECT_EQ(lanes[i].at("data-module"), m["name"].asString());
        EXPECT_EQ(lanes[i].at("data-side"), "rear");
        nameOfLabel[m["label"].asString()] = m["name"].asString();
    }

    // Each lane ends in the mode the module ended in: the master as master,
    // the others as slaves, all naming the master (a master follows itself),
    // until the daemons were stopped at the end of the run.
    const std::string master = nameOfLabel[summary["modules"][0]["syncMaster"].asString()];
    ASSERT_FALSE(master.empty());
    for (const auto& m : summary["modules"]) {
        const std::string name = m["name"].asString();
        const std::map<std::string, std::string>* last = nullptr;
        const auto spans = elements(dom, "span mode-master");
        const auto slaves = elements(dom, "span mode-slave");
        double lastFrom = -1;
        for (const auto* list : {&spans, &slaves}) {
            for (const auto& s : *list) {
                if (s.at("data-module") == name && std::stod(s.at("data-from")) > lastFrom) {
                    lastFrom = std::stod(s.at("data-from"));
                    last = &s;
                }
            }
        }
        ASSERT_NE(last, nullptr) << name;
        EXPECT_EQ(last->at("data-mode"), name == master ? "master" : "slave") << name;
        EXPECT_EQ(last->at("data-master"), master) << name;
        EXPECT_NEAR(std::stod(last->at("data-to")), summary["duration"].asDouble(), 1.0) << name;
    }

    // An election marker per election, with its trigger and settle time.
    const auto elections = elements(dom, "election");
    ASSERT_EQ(elections.size(), summary["elections"].size());
    for (Json::ArrayIndex i = 0; i < summary["elections"].size(); ++i) {
        const Json::Value& e = summary["elections"][i];
        EXPECT_EQ(elections[i].at("data-trigger"), e["trigger"].asString());
        EXPECT_NEAR(std::stod(elections[i].at("data-opened")), e["started"].asDouble(), 0.001);
        if (e["results"].empty()) {
            EXPECT_EQ(elections[i].at("data-settle"), "none");
        } else {
            EXPECT_GE(std::stod(elections[i].at("data-settle")), 0.0);
        }
    }
    // The unplug and the replug both opened an election.
    EXPECT_GE(elections.size(), 3u);

    // A line per timeline event, a tick per script call, a band per module
    // that raised an error.
    const auto events = elements(dom, "event");
    ASSERT_EQ(events.size(), summary["timeline"].size());
    for (Json::ArrayIndex i = 0; i < summary["timeline"].size(); ++i) {
        EXPECT_EQ(events[i].at("data-text"), summary["timeline"][i]["event"].asString());
    }
    std::size_t calls = 0;
    for (const auto& m : summary["modules"]) {
        calls += m["scriptCalls"].size();
        bool raised = false;
        for (const auto& e : m["errorsSeen"]) {
            raised = raised || e["event"].asString() == "raised";
        }
        std::size_t bands = 0;
        for (const auto& b : elements(dom, "error-band")) {
            bands += b.at("data-module") == m["name"].asString() ? 1 : 0;
        }
        EXPECT_EQ(bands > 0, raised) << m["name"].asString();
    }
    EXPECT_EQ(elements(dom, "script-call").size(), calls);
    EXPECT_GT(calls, 0u);  // the masters started their time service

    // Every mark has a tooltip, and the legend names every kind of mark.
    EXPECT_EQ(elements(dom, "legend").size(), 1u);
    for (const char* kind : {"master", "slave", "alone", "active error", "script call", "timeline event"}) {
        EXPECT_NE(dom.find(std::string(">") + kind), std::string::npos) << kind;
    }
}
