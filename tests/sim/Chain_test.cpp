// Reading chain files: the statements, their checks and the error lines.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tsdsim/Chain.h"
#include "tsdsim/ModuleDevices.h"

using tsdsim::Chain;
using tsdsim::ChainError;
using tsdsim::parseChain;

namespace {

int errorLine(const std::string& text)
{
    try {
        parseChain(text);
    } catch (const ChainError& e) {
        return e.line();
    }
    return -1;
}

std::string errorText(const std::string& text)
{
    try {
        parseChain(text);
    } catch (const ChainError& e) {
        return e.what();
    }
    return {};
}

}  // namespace

TEST(Chain, ReadsModulesBusesLevelsAndASortedTimeline)
{
    Chain c = parseChain(
        "# comment line\n"
        "duration 30\n"
        "levels module KP=20 RZ=10 XY=7\n"
        "levels source Ptp=5 Ntp=3\n"
        "bus chain   # trailing comment\n"
        "bus side\n"
        "module a uuid=abcdef type=KP40 rear=chain front=side timesource=Ntp threshold=2.5 "
        "ptp4l=\"-4 -E -i firewire0\" ntpserver=10.0.0.1 group=239.1.2.3 port=5000 tsdargs=\"-d\"\n"
        "module b uuid=102 rear=chain param=no\n"
        "at 12 param a timesource=Ptp threshold=0.3\n"
        "at 4.5 unplug b\n"
        "at 6 cut a.front\n"
        "at 7 loss chain 0.25\n");
    EXPECT_DOUBLE_EQ(c.duration, 30);
    EXPECT_EQ(c.buses, (std::vector<std::string>{"chain", "side"}));
    ASSERT_EQ(c.modules.size(), 2u);
    const auto& a = c.modules[0];
    EXPECT_EQ(a.setup.uuid, 0xabcdefu);
    EXPECT_EQ(a.setup.type, "KP40");
    EXPECT_EQ(a.rearBus, "chain");
    EXPECT_EQ(a.frontBus, "side");
    EXPECT_EQ(a.setup.param.timesource, "Ntp");
    EXPECT_DOUBLE_EQ(a.setup.param.threshold, 2.5);
    EXPECT_EQ(a.setup.param.ptp4l, "-4 -E -i firewire0");
    EXPECT_EQ(a.setup.param.ntpserver, "10.0.0.1");
    EXPECT_EQ(a.setup.group, "239.1.2.3");
    EXPECT_EQ(a.setup.port, 5000u);
    EXPECT_EQ(a.tsdArgs, (std::vector<std::string>{"-d"}));
    EXPECT_EQ(a.setup.moduleLevels.size(), 3u);
    EXPECT_EQ(a.setup.sourceLevels[0], (std::pair<std::string, unsigned>{"Ptp", 5}));
    EXPECT_NE(a.setup.configFile().find("<XY>7</XY>"), std::string::npos);
    EXPECT_FALSE(c.modules[1].setup.publishParam);
    EXPECT_TRUE(c.modules[1].frontBus.empty());
    ASSERT_EQ(c.events.size(), 4u);
    EXPECT_EQ(c.events[0].text(), "unplug b");
    EXPECT_DOUBLE_EQ(c.events[0].time, 4.5);
    EXPECT_EQ(c.events[3].text(), "param a timesource=Ptp threshold=0.3");
}

TEST(Chain, ReportsTheLineOfEachMistake)
{
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=nope\n"), 2);
    EXPECT_EQ(errorLine("bus b\nmodule a rear=b\n"), 2);               // no uuid
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1000000 rear=b\n"), 2);  // beyond 24 bits
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=zz rear=b\n"), 2);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1\nmodule c uuid=1\n"), 3);  // same uuid
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1\nmodule a uuid=2\n"), 3);  // same name
    EXPECT_EQ(errorLine("bus b\nbus b\n"), 2);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 colour=red\n"), 2);
    EXPECT_EQ(errorLine("frobnicate\n"), 1);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat 3 unplug zz\n"), 3);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat 3 cut a.front\n"), 3);  // no front port
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat 3 loss b 1.5\n"), 3);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat -1 unplug a\n"), 3);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat x unplug a\n"), 3);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat 3 param a colour=red\n"), 3);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nat 3 script a rm.sh 1\n"), 3);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b ptp4l=\"open\n"), 2);
    EXPECT_EQ(errorLine("duration 5\nbus b\nmodule a uuid=1 rear=b\nat 9 unplug a\n"), 4);
    EXPECT_EQ(errorLine("bus b\nmodule a uuid=1 rear=b\nlevels module RZ=1\n"), 3);
    EXPECT_EQ(errorLine("# nothing\n"), 0);  // no module at all
    EXPECT_NE(errorText("bus b\nmodule a uuid=1 rear=nope\n").find("unknown bus 'nope'"), std::string::npos);
}

TEST(Chain, DefaultChainPutsNModulesOnOneBusWithRisingUuids)
{
    Chain c = tsdsim::defaultChain(3, 12);
    EXPECT_DOUBLE_EQ(c.duration, 12);
    ASSERT_EQ(c.modules.size(), 3u);
    EXPECT_EQ(c.modules[2].setup.name, "m3");
    EXPECT_EQ(c.modules[2].setup.uuid, 0x000103u);
    EXPECT_EQ(c.modules[2].rearBus, "chain");
    EXPECT_TRUE(c.events.empty());
}

TEST(Chain, ExampleChainFilesAreValid)
{
    std::filesystem::path dir = std::filesystem::path(TSDSIM_SOURCE_DIR) / "sim" / "chains";
    int files = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (e.path().extension() == ".chain") {
            ++files;
            EXPECT_NO_THROW(tsdsim::loadChain(e.path().string())) << e.path();
        }
    }
    EXPECT_GE(files, 3);
    EXPECT_THROW(tsdsim::loadChain((dir / "no-such.chain").string()), ChainError);
}

TEST(Chain, NodeIdsAndLabelsOfAModule)
{
    tsdsim::ModuleSetup s;
    s.uuid = 0xabcdef;
    EXPECT_EQ(s.label(), "0A7C31ABCDEF");
    EXPECT_EQ(s.nodeId(tsdsim::Side::Rear), 0x0A7C31ABCDEFull);
    EXPECT_EQ(s.nodeId(tsdsim::Side::Front), 0x0A7C312BCDEFull);
    // As fwdevd names them on the bus: the node id in 16 digits.
    EXPECT_EQ(tsdsim::reachablePath(tsdsim::Side::Front, s.nodeId(tsdsim::Side::Front)),
              "reachableDevices/firewire1/00000A7C312BCDEF");
    EXPECT_EQ(tsdsim::nodeIdAddress(0x0A7C31000001ull), "00:00:0a:7c:31:00:00:01");
}

TEST(Chain, CablingParameterChangesAndADaemonStartMakeTheDaemonsElectAgain)
{
    Chain c = parseChain(
        "bus b\n"
        "module a uuid=1 rear=b\n"
        "at 1 unplug a\nat 1 replug a\nat 1 cut a.rear\nat 1 plug a.rear\n"
        "at 1 param a threshold=2\nat 1 start-tsd a\n"
        "at 2 kill-tsd a\nat 2 stop-tsd a\nat 2 kill-velad a\nat 2 start-velad a\n"
        "at 2 loss b 0.5\nat 2 dup b 0.5\nat 2 delay b 10\nat 2 script a ptp4ladm.sh 1\n");
    ASSERT_EQ(c.events.size(), 14u);
    for (const auto& e : c.events) {
        EXPECT_EQ(tsdsim::opensElection(e), e.time == 1) << e.text();
    }
}

TEST(Chain, ParameterKeysAreAppliedInOnePlace)
{
    tsdsim::SyncParam p;
    EXPECT_TRUE(tsdsim::applyParamKey(p, "threshold", "2.5"));
    EXPECT_TRUE(tsdsim::applyParamKey(p, "ptp4l", "-4 -m"));
    EXPECT_DOUBLE_EQ(p.threshold, 2.5);
    EXPECT_EQ(p.ptp4l, "-4 -m");
    EXPECT_FALSE(tsdsim::applyParamKey(p, "uuid", "1"));
    EXPECT_THROW(tsdsim::applyParamKey(p, "threshold", "much", 7), ChainError);
    EXPECT_EQ(errorText("bus b\nmodule a uuid=1 rear=b\nat 1 script a other.sh 1\n"),
              "line 3: script: unknown script 'other.sh'");
}

// The reference of the format is docs/chain-files.md: every event and module
// key it lists must be known to the reader, with the same election rule.
TEST(Chain, FaultEventsAreCheckedWithTheirBounds)
{
    const std::string head = "bus b\nbus c\nmodule a uuid=1 rear=b\n";
    Chain ok = parseChain(head +
                          "at 1 slow-script a ptp4ladm.sh 4\nat 1 slow-script a stop_ntpd.sh 0\n"
                          "at 1 flap a.rear 10 10\nat 1 move a.rear c\nat 1 fill-run a\nat 1 free-run a\n"
                          "at 1 flood a.rear start 100 10\nat 1 flood a.rear junk 10000 3600\n"
                          "at 1 clients a 1000 60\n");
    EXPECT_EQ(ok.events.size(), 9u);
    for (const char* bad : {"slow-script a ptp4ladm.sh -1", "slow-script a ptp4ladm.sh 3601",
                            "slow-script a rm.sh 1", "slow-script zz ptp4ladm.sh 1", "slow-script a ptp4ladm.sh",
                            "flap a.front 10 10", "flap a.rear 0 10", "flap a.rear 51 10", "flap a.rear 10 0",
                            "flap a.rear 10 nan", "move a.rear nope", "move a c", "fill-run", "free-run zz",
                            "flood a.rear storm 10 1", "flood a.rear start 0 1", "flood a.rear start 10001 1",
                            "flood a.rear start 10 3601", "flood a start 10 1", "clients a 0 1",
                            "clients a 100001 1", "clients a -5 1", "clients a 10 0", "clients a 10"}) {
        EXPECT_EQ(errorLine(head + "at 1 " + bad + "\n"), 4) << bad;
    }
    EXPECT_NE(errorText(head + "at 1 flap a.rear 51 1\n").find("0 to 50"), std::string::npos);
    for (const auto& e : ok.events) {
        const bool cabling = e.words[0] == "flap" || e.words[0] == "move";
        EXPECT_EQ(tsdsim::opensElection(e), cabling) << e.text();
    }
}

TEST(Chain, TheFormatReferenceAndTheReaderAgree)
{
    std::ifstream in(std::string(TSDSIM_SOURCE_DIR) + "/docs/chain-files.md");
    ASSERT_TRUE(in);
    std::string line;
    std::string section;
    int events = 0;
    int keys = 0;
    const Chain chain = parseChain("bus b\nmodule a uuid=1 rear=b\n");
    while (std::getline(in, line)) {
        if (line.rfind("## ", 0) == 0) {
            section = line.substr(3);
            continue;
        }
        if (line.rfind("| `", 0) != 0) {
            continue;
        }
        // The first cell's `...` items name the events or keys of the row.
        const std::string first = line.substr(0, line.find(" |", 2));
        std::vector<std::string> items;
        for (std::size_t open = first.find('`'); open != std::string::npos;
             open = first.find('`', first.find('`', open + 1) + 1)) {
            const std::size_t close = first.find('`', open + 1);
            items.push_back(first.substr(open + 1, close - open - 1));
        }
        if (section == "Events") {
            const bool electing =
                line.substr(line.rfind("| ", line.size() - 3)).find("yes") != std::string::npos;
            for (const auto& item : items) {
                Chain::Event e;
                e.words = {item.substr(0, item.find(' '))};
                EXPECT_EQ(tsdsim::checkEvent(chain, e).find("unknown event"), std::string::npos) << item;
                EXPECT_EQ(tsdsim::opensElection(e), electing) << item;
                ++events;
            }
        } else if (section == "Module keys") {
            for (const auto& item : items) {
                const std::string key = item.substr(0, item.find('='));
                EXPECT_EQ(errorText("bus b\nmodule a uuid=1 " + key + "=1\n").find("unknown module key"),
                          std::string::npos)
                    << key;
                ++keys;
            }
        }
    }
    EXPECT_EQ(events, 21);
    EXPECT_EQ(keys, 12);
}

TEST(Chain, ServicesAreRecordingUnlessTheFileAsksForRealOnes)
{
    EXPECT_EQ(parseChain("bus b\nmodule m uuid=1 rear=b\n").services, tsdsim::Services::Recording);
    EXPECT_EQ(parseChain("services real\nbus b\nmodule m uuid=1 rear=b\n").services, tsdsim::Services::Real);
    EXPECT_EQ(parseChain("services recording\nbus b\nmodule m uuid=1 rear=b\n").services,
              tsdsim::Services::Recording);
    EXPECT_EQ(errorLine("bus b\nservices fast\nmodule m uuid=1 rear=b\n"), 2);
    EXPECT_NE(errorText("services\nbus b\nmodule m uuid=1 rear=b\n").find("real or recording"), std::string::npos);
}
