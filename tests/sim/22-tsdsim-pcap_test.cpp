// tsdsim --pcap: the frames of a run of real daemons, written per bus and read
// back by tshark with the project's telegram dissector. What the dissector
// must find is derived from the run's own summary: every module's start, an
// item of every module with its label, each module sending from one address,
// and sound checksums on every frame.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TsdsimRun.h"

using simtest::readAll;
using simtest::runTsdsim;
using simtest::TempPath;

namespace {

const std::string kDissector = std::string(TSDSIM_SOURCE_DIR) + "/packaging/wireshark/tsd.lua";

const std::vector<std::string> kFields = {
    "frame.number", "ip.src",      "tsd.side",           "tsd.command",         "tsd.label",
    "tsd.form",     "tsd.ts_prio", "_ws.expert.message", "udp.checksum.status", "ip.checksum.status"};

// What the dissector says of an item with priority 0.
const std::string kEmptyItem =
    "Module or time-source priority 0: the daemons keep the side's list incomplete";

// Every frame of the capture, the fields above by name.
std::vector<std::map<std::string, std::string>> dissect(const std::string& capture)
{
    std::string command = "tshark -n -X lua_script:" + kDissector +
                          " -o udp.check_checksum:TRUE -o ip.check_checksum:TRUE -r " + capture +
                          " -T fields -E separator=/t -E occurrence=a -E aggregator='|'";
    for (const std::string& f : kFields) {
        command += " -e " + f;
    }
    std::string out;
    FILE* pipe = ::popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run " << command;
        return {};
    }
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;) {
        out.append(chunk, n);
    }
    const int status = ::pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
    std::vector<std::map<std::string, std::string>> frames;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::map<std::string, std::string> frame;
        std::size_t column = 0;
        std::string::size_type begin = 0;
        for (std::string::size_type tab; column < kFields.size(); begin = tab + 1, ++column) {
            tab = line.find('\t', begin);
            frame[kFields[column]] =
                line.substr(begin, tab == std::string::npos ? std::string::npos : tab - begin);
            if (tab == std::string::npos) {
                ++column;
                break;
            }
        }
        EXPECT_EQ(column, kFields.size()) << "unexpected line: " << line;
        frames.push_back(frame);
    }
    return frames;
}

}  // namespace

TEST(TsdsimPcap, EveryTelegramOfTheRunDecodesWithItsSenderAndSoundChecksums)
{
    TempPath err("pcap-err");
    TempPath dir("pcap-dir");
    std::string out;
    const int st =
        runTsdsim({"--modules", "3", "--for", "8", "--json", "--pcap", dir.path()}, &out, err.path());
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << st << readAll(err.path());
    Json::Value summary;
    std::string errors;
    ASSERT_TRUE(simtest::parseJson(out, summary, errors)) << errors;

    // The simulator says how many frames it wrote; the file holds them all.
    const std::string capture = dir.path() + "/chain.pcap";
    const std::string said = "frames of bus chain in " + capture;
    const std::string log = readAll(err.path());
    const std::string::size_type at = log.find(said);
    ASSERT_NE(at, std::string::npos) << log;
    const std::string::size_type lineStart = log.rfind("tsdsim: ", at);
    ASSERT_NE(lineStart, std::string::npos);
    const unsigned long written = std::stoul(log.substr(lineStart + 8));

    const auto frames = dissect(capture);
    ASSERT_EQ(frames.size(), written);

    std::map<std::string, std::string> labelOfSender;  // ip.src -> label of its items
    std::set<std::string> announced;                   // ip.src that sent its priorities
    std::map<std::string, std::set<std::string>> commandsOfSender;
    std::size_t telegrams = 0;
    for (const auto& f : frames) {
        if (f.at("tsd.side").empty()) {
            continue;  // not a telegram (the interfaces' own IGMP and the like)
        }
        ++telegrams;
        const std::string& n = f.at("frame.number");
        EXPECT_EQ(f.at("tsd.side"), "rear") << n;  // the built-in chain cables rear ports only
        EXPECT_EQ(f.at("tsd.form"), "rear") << n;
        // A daemon that answers a start before its parameters have come
        // from the bus announces time-source priority 0; once it has
        // announced its priorities it never goes back to 0.
        const std::string& sender = f.at("ip.src");
        const bool item = f.at("tsd.command") == "item";
        const bool awaitingParameters = item && f.at("tsd.ts_prio") == "0" && !announced.count(sender);
        EXPECT_EQ(f.at("_ws.expert.message"), awaitingParameters ? kEmptyItem : "") << n;
        if (item && f.at("tsd.ts_prio") != "0") {
            announced.insert(sender);
        }
        EXPECT_EQ(f.at("udp.checksum.status"), "1") << n;  // checksummed by the sending module
        EXPECT_EQ(f.at("ip.checksum.status"), "1") << n;
        commandsOfSender[sender].insert(f.at("tsd.command"));
        if (item) {
            auto known = labelOfSender.emplace(sender, f.at("tsd.label"));
            EXPECT_EQ(known.first->second, f.at("tsd.label")) << "frame " << n << " from " << sender;
        }
    }
    EXPECT_GT(telegrams, 0u);

    std::set<std::string> labels;
    for (const auto& m : summary["modules"]) {
        labels.insert(m["label"].asString());
    }
    std::set<std::string> itemLabels;
    for (const auto& s : labelOfSender) {
        itemLabels.insert(s.second);
    }
    EXPECT_EQ(itemLabels, labels);
    ASSERT_EQ(commandsOfSender.size(), summary["modules"].size());
    for (const auto& s : commandsOfSender) {
        // Each daemon opens an election on its first parameters and answers it.
        EXPECT_EQ(s.second.count("start"), 1u) << s.first;
        EXPECT_EQ(s.second.count("item"), 1u) << s.first;
    }
}

TEST(TsdsimPcap, AnUnwritableDirectoryIsRefusedBeforeTheRun)
{
    TempPath err("pcap-err2");
    TempPath file("pcap-file");
    {
        std::ofstream f(file.path());
        f << "not a directory\n";
    }
    std::string out;
    const int st = runTsdsim({"--modules", "2", "--for", "5", "--pcap", file.path()}, &out, err.path());
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 2);
    EXPECT_NE(readAll(err.path()).find("--pcap"), std::string::npos) << readAll(err.path());
}
