// The telegram dissector, run by tshark over a capture that this test writes
// with the simulator's pcap writer: telegrams from the daemon's own encoder on
// both sides, and every kind of telegram the daemons drop, refuse or would
// never write.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <chrono>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "protocol/ModuleItem.h"
#include "protocol/Telegram.h"
#include "testsupport/PrivateMounts.h"
#include "tsdsim/PcapWriter.h"

using testsupport::PrivateMounts;
using tsdsim::PcapWriter;
namespace telegram = orv::tsd::telegram;

namespace {

const std::string kDissector = std::string(TSD_SOURCE_DIR) + "/packaging/wireshark/tsd.lua";
const char kGroup[] = "239.255.77.1";

struct Sent
{
    std::string sender;
    unsigned port;
    std::string bytes;
};

std::string item(unsigned uuid, unsigned module, unsigned prio, unsigned threshold, orv::tsd::interface_t side)
{
    return telegram::encodeItem(ModuleItem(uuid, module, prio, threshold), side);
}

// One capture, frame n (from 1) carrying sent[n - 1].
std::string writeCapture(const std::vector<Sent>& sent)
{
    const std::string path = PrivateMounts::scratchDir("dissector") + "/telegrams.pcap";
    PcapWriter writer;
    EXPECT_TRUE(writer.open(path)) << writer.error();
    auto when = std::chrono::system_clock::now();
    for (const Sent& s : sent) {
        EXPECT_TRUE(writer.write(when, PcapWriter::udpFrame(s.sender, kGroup, static_cast<std::uint16_t>(s.port),
                                                            static_cast<std::uint16_t>(s.port), s.bytes)));
        when += std::chrono::milliseconds(10);
    }
    EXPECT_TRUE(writer.close()) << writer.error();
    return path;
}

std::string run(const std::string& command, int& status)
{
    std::string out;
    FILE* pipe = ::popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr)
        return out;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0;)
        out.append(chunk, n);
    status = ::pclose(pipe);
    return out;
}

const std::vector<std::string> kColumns = {"tsd.side",        "tsd.command", "tsd.uuid",      "tsd.label",
                                           "tsd.module_prio", "tsd.ts_prio", "tsd.threshold", "tsd.form",
                                           "tsd.side_field",  "tsd.text",    "_ws.expert.message", "_ws.col.Info",
                                           "udp.checksum.status", "ip.checksum.status"};

// Per frame number, the columns above by name.
std::map<int, std::map<std::string, std::string>> dissect(const std::string& capture,
                                                          const std::string& extra = "")
{
    std::string command = "tshark -n -X lua_script:" + kDissector + " " + extra +
                          " -o udp.check_checksum:TRUE -o ip.check_checksum:TRUE -r " + capture +
                          " -T fields -E separator=/t -E occurrence=a -E aggregator='|' -e frame.number";
    for (const std::string& column : kColumns)
        command += " -e " + column;
    int status = -1;
    const std::string out = run(command, status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
    std::map<int, std::map<std::string, std::string>> frames;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> values;
        std::string::size_type begin = 0;
        for (std::string::size_type tab; (tab = line.find('\t', begin)) != std::string::npos; begin = tab + 1)
            values.push_back(line.substr(begin, tab - begin));
        values.push_back(line.substr(begin));
        if (values.size() != kColumns.size() + 1) {
            ADD_FAILURE() << "unexpected line: " << line;
            continue;
        }
        std::map<std::string, std::string>& frame = frames[std::stoi(values[0])];
        for (std::size_t i = 0; i < kColumns.size(); ++i)
            frame[kColumns[i]] = values[i + 1];
    }
    return frames;
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(WiresharkDissector, NamesTheFieldsOfTheDaemonsTelegramsOnBothSides)
{
    const std::string capture = writeCapture({
        {"169.254.1.1", 14000, telegram::encodeStart(orv::tsd::REAR_FW)},
        {"169.254.1.4", 14000, item(0x104, 10, 2, 15, orv::tsd::REAR_FW)},
        {"169.254.2.1", 14001, telegram::encodeResync(orv::tsd::FRONT_FW)},
        {"169.254.2.2", 14001, item(0xabcdef, 20, 1, 5, orv::tsd::FRONT_FW)},
        {"169.254.2.1", 14001, telegram::encodeStart(orv::tsd::FRONT_FW)},
    });
    auto frames = dissect(capture);
    ASSERT_EQ(frames.size(), 5u);

    EXPECT_EQ(frames[1]["tsd.side"], "rear");
    EXPECT_EQ(frames[1]["tsd.command"], "start");
    EXPECT_EQ(frames[1]["tsd.form"], "rear");
    EXPECT_EQ(frames[1]["tsd.uuid"], "");
    EXPECT_EQ(frames[1]["_ws.expert.message"], "");
    EXPECT_EQ(frames[1]["_ws.col.Info"], "start (rear)");
    EXPECT_EQ(frames[1]["udp.checksum.status"], "1");  // the writer's frames are sound
    EXPECT_EQ(frames[1]["ip.checksum.status"], "1");

    EXPECT_EQ(frames[2]["tsd.command"], "item");
    EXPECT_EQ(frames[2]["tsd.uuid"], "0x00000104");
    EXPECT_EQ(frames[2]["tsd.label"], "0A7C31000104");
    EXPECT_EQ(frames[2]["tsd.module_prio"], "10");
    EXPECT_EQ(frames[2]["tsd.ts_prio"], "2");
    EXPECT_EQ(frames[2]["tsd.threshold"], "15");
    EXPECT_EQ(frames[2]["_ws.expert.message"], "");
    EXPECT_EQ(frames[2]["_ws.col.Info"], "item 0A7C31000104 module 10 time-source 2 threshold 1.5 (rear)");

    EXPECT_EQ(frames[3]["tsd.side"], "front");
    EXPECT_EQ(frames[3]["tsd.command"], "resync");
    EXPECT_EQ(frames[3]["tsd.side_field"], "1");
    EXPECT_EQ(frames[3]["_ws.expert.message"], "");

    EXPECT_EQ(frames[4]["tsd.side"], "front");
    EXPECT_EQ(frames[4]["tsd.label"], "0A7C31ABCDEF");
    EXPECT_EQ(frames[4]["tsd.module_prio"], "20");
    EXPECT_EQ(frames[4]["tsd.form"], "front");
    EXPECT_EQ(frames[4]["_ws.expert.message"], "");
    EXPECT_EQ(frames[5]["tsd.command"], "start");
    EXPECT_EQ(frames[5]["tsd.side"], "front");
}

TEST(WiresharkDissector, FlagsEveryKindOfMalformedTelegram)
{
    const std::string capture = writeCapture({
        {"169.254.1.9", 14000, ""},
        {"169.254.1.9", 14000, "<sync>"},
        {"169.254.1.9", 14000, "<sync>:start"},
        {"169.254.1.9", 14000, "<sync>:item:1:2:3:4:<SYNC>"},
        {"169.254.1.9", 14000, "<sync>:start:<sync>\n"},
        {"169.254.1.9", 14000, std::string("\x1b[2J\x00\xff", 6)},
        {"169.254.1.9", 14000, "<sync>:hello:<sync>"},
        {"169.254.1.9", 14000, "<sync>::<sync>"},
        {"169.254.1.9", 14000, "<sync>:item:1:2:<sync>"},
        {"169.254.1.9", 14001, "<sync>:start:1:2:<sync>"},
        {"169.254.1.9", 14000, "<sync>:start:1:<sync>"},
        {"169.254.2.9", 14001, "<sync>:item:1:2:3:4:<sync>"},
    });
    auto frames = dissect(capture);
    ASSERT_EQ(frames.size(), 12u);
    EXPECT_TRUE(contains(frames[1]["_ws.expert.message"], "Empty datagram")) << frames[1]["_ws.expert.message"];
    for (int n = 2; n <= 6; ++n) {
        EXPECT_TRUE(contains(frames[n]["_ws.expert.message"], "Not framed by <sync>"))
            << n << ": " << frames[n]["_ws.expert.message"];
        EXPECT_TRUE(contains(frames[n]["_ws.col.Info"], "Malformed: bad frame")) << n;
        EXPECT_EQ(frames[n]["tsd.command"], "") << n;
    }
    EXPECT_EQ(frames[5]["tsd.text"], "<sync>:start:<sync>\\x0a");
    EXPECT_EQ(frames[6]["tsd.text"], "\\x1b[2J\\x00\\xff");
    for (int n = 7; n <= 10; ++n) {
        EXPECT_TRUE(contains(frames[n]["_ws.expert.message"], "Unknown command or field count"))
            << n << ": " << frames[n]["_ws.expert.message"];
        EXPECT_TRUE(contains(frames[n]["_ws.col.Info"], "Malformed: unknown command")) << n;
    }
    EXPECT_TRUE(contains(frames[11]["_ws.expert.message"], "other side's form")) << frames[11]["_ws.expert.message"];
    EXPECT_EQ(frames[11]["tsd.form"], "front");
    EXPECT_EQ(frames[11]["tsd.side"], "rear");
    EXPECT_EQ(frames[11]["_ws.col.Info"], "start (front form on the rear port)");
    EXPECT_TRUE(contains(frames[12]["_ws.expert.message"], "other side's form"));
    EXPECT_EQ(frames[12]["tsd.uuid"], "0x00000001");
}

TEST(WiresharkDissector, NotesWhatTheDaemonsAcceptButNeverWrite)
{
    const std::string capture = writeCapture({
        {"169.254.2.9", 14001, "<sync>:start:x:<sync>"},
        {"169.254.1.9", 14000, "<sync>:item:0x1F:A:2:zz:<sync>"},
        {"169.254.1.9", 14000, "<sync>:item:1ffffffffffffffff:a:2:0:<sync>"},
        {"169.254.1.9", 14000, "<sync>:item:-1:a:0:5:<sync>"},
    });
    auto frames = dissect(capture);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[1]["tsd.side_field"], "x");
    EXPECT_TRUE(contains(frames[1]["_ws.expert.message"], "Side field is not"));
    // Read as strtoul reads them.
    EXPECT_EQ(frames[2]["tsd.uuid"], "0x0000001f");
    EXPECT_EQ(frames[2]["tsd.module_prio"], "10");
    EXPECT_EQ(frames[2]["tsd.threshold"], "0");
    EXPECT_TRUE(contains(frames[2]["_ws.expert.message"], "Number \"0x1F\" not written as the daemons write it; "
                                                          "read as 31"))
        << frames[2]["_ws.expert.message"];
    EXPECT_TRUE(contains(frames[2]["_ws.expert.message"], "Number \"zz\""));
    EXPECT_EQ(frames[3]["tsd.uuid"], "0xffffffff");  // beyond 64 bits: all ones, then cut
    EXPECT_EQ(frames[4]["tsd.uuid"], "0xffffffff");  // "-1"
    EXPECT_TRUE(contains(frames[4]["_ws.expert.message"], "Module or time-source priority 0"));
}

TEST(WiresharkDissector, PortsFollowThePreference)
{
    const std::string capture = writeCapture({
        {"169.254.1.1", 15000, telegram::encodeStart(orv::tsd::REAR_FW)},
        {"169.254.2.1", 15001, telegram::encodeStart(orv::tsd::FRONT_FW)},
        {"169.254.1.1", 14000, telegram::encodeStart(orv::tsd::REAR_FW)},
    });
    auto frames = dissect(capture, "-o tsd.port:15000");
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames[1]["tsd.side"], "rear");
    EXPECT_EQ(frames[2]["tsd.side"], "front");
    EXPECT_EQ(frames[3]["tsd.command"], "");  // the old port is no longer the telegrams'
}

TEST(WiresharkDissector, InstalledWhereWiresharkLoadsGlobalLuaPlugins)
{
    int status = -1;
    const std::string folders = run("tshark -G folders", status);
    const std::string key = "Global Lua Plugins:";
    const std::string::size_type at = folders.find(key);
    ASSERT_NE(at, std::string::npos) << folders;
    std::string folder = folders.substr(at + key.size());
    folder = folder.substr(0, folder.find('\n'));
    folder.erase(0, folder.find_first_not_of(" \t"));
    ASSERT_FALSE(folder.empty());

    const std::string root = PrivateMounts::scratchDir("dissector-install");
    run("DESTDIR=" + root + " " + TSD_CMAKE_COMMAND + " --install " + TSD_BINARY_DIR + " > /dev/null", status);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    run("cmp -s " + root + folder + "/tsd.lua " + kDissector, status);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << root + folder + "/tsd.lua";
}
