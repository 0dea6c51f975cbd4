// The report page on its own, from a run record made by hand: hostile text
// from the run stays text, long text is cut, the page loads nothing, and the
// record's lanes and marks are all drawn.
#include <gtest/gtest.h>

#include <string>

#include "tsdsim/ReportWriter.h"
#include "tsdsim/RunTimeline.h"

using tsdsim::ReportWriter;
using tsdsim::RunTimeline;

namespace {

std::size_t count(const std::string& text, const std::string& part)
{
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
        ++n;
    }
    return n;
}

RunTimeline twoModules(const std::string& eventText)
{
    RunTimeline run;
    run.duration = 10;
    run.modules = {{"a", "000101", "0A7C31000101"}, {"b", "000102", "0A7C31000102"}};
    run.lanes = {{"a", "rear", {{0.5, 10, RunTimeline::Mode::Slave, "0A7C31000102"}}},
                 {"b", "rear", {{0.5, 10, RunTimeline::Mode::Master, "0A7C31000102"}}},
                 {"b", "front", {{0.5, 10, RunTimeline::Mode::Alone, ""}}}};
    run.errors = {{"a", "-1", "no answer", 4, 10, true}};
    run.scriptCalls = {{"b", 3.5, "ptp4ladm.sh", "start"}};
    run.services = {{"b", 3.5, "ptp"}};
    run.elections = {{"start", 0, 3.5, "0A7C31000102", 2}, {"unplug b", 6, -1, "", 0}};
    run.events = {{0, "start"}, {6, eventText}};
    return run;
}

}  // namespace

TEST(ReportWriter, DrawsEveryLaneAndMarkOfTheRecord)
{
    const RunTimeline run = twoModules("unplug b");
    const std::string html = ReportWriter(run).html();
    EXPECT_EQ(count(html, "<g class=\"lane\""), 3u);
    EXPECT_EQ(count(html, "<g class=\"span mode-master\""), 1u);
    EXPECT_EQ(count(html, "data-mode=\"slave\" data-master=\"b\""), 1u);
    EXPECT_EQ(count(html, "<g class=\"election\""), 2u);
    EXPECT_EQ(count(html, "data-settle=\"3.500\""), 1u);
    EXPECT_EQ(count(html, "data-settle=\"none\""), 1u);
    EXPECT_EQ(count(html, "<g class=\"event\""), 2u);
    EXPECT_EQ(count(html, "<g class=\"error-band\""), 1u);
    EXPECT_EQ(count(html, "<g class=\"script-call\""), 1u);
    EXPECT_EQ(count(html, "<g class=\"service-change\""), 1u);
    // Every mark explains itself.
    EXPECT_GE(count(html, "<title>"), 3u + 1u + 2u + 2u + 1u + 1u + 1u);
}

TEST(ReportWriter, TextFromTheRunStaysTextAndTheCutIsMarked)
{
    const std::string hostile = "<script>alert(1)</script>\" onload=\"x\x1b[2J";
    const std::string html = ReportWriter(twoModules(hostile)).html();
    EXPECT_EQ(html.find("<script"), std::string::npos);
    EXPECT_EQ(html.find("onload=\""), std::string::npos);
    EXPECT_EQ(html.find('\x1b'), std::string::npos);
    EXPECT_NE(html.find("&lt;script&gt;alert(1)&lt;/script&gt;&quot; onload=&quot;x\\x1b[2J"), std::string::npos);

    const std::string longText(ReportWriter::kMaxText + 40, 'w');
    const std::string cut = ReportWriter(twoModules(longText)).html();
    EXPECT_EQ(cut.find(longText.substr(0, ReportWriter::kMaxText + 1)), std::string::npos);
    EXPECT_NE(cut.find(longText.substr(0, ReportWriter::kMaxText) + "&#8230;"), std::string::npos);
}

TEST(ReportWriter, ThePageLoadsNothingFromAnywhere)
{
    const std::string html = ReportWriter(twoModules("unplug b")).html();
    EXPECT_NE(html.find("content=\"default-src 'none'; style-src 'unsafe-inline'\""), std::string::npos);
    for (const char* load : {"<script", "<link", "<img", "src=", "@import", "@font-face", "url(http", "https:"}) {
        EXPECT_EQ(html.find(load), std::string::npos) << load;
    }
    // The one namespace URI of inline SVG is no load.
    EXPECT_EQ(count(html, "http:"), count(html, "http://www.w3.org/2000/svg"));
}

TEST(ReportWriter, WritesTheFileAndRefusesALinkInItsPlace)
{
    char dir[] = "/tmp/report-test-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/run.html";
    std::string error;
    EXPECT_TRUE(ReportWriter(twoModules("x")).writeFile(path, error)) << error;
    const std::string link = std::string(dir) + "/link.html";
    ASSERT_EQ(::symlink(path.c_str(), link.c_str()), 0);
    EXPECT_FALSE(ReportWriter(twoModules("x")).writeFile(link, error));
    EXPECT_NE(error.find(link), std::string::npos);
    ::unlink(link.c_str());
    ::unlink(path.c_str());
    ::rmdir(dir);
}
