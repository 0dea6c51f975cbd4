// The access policy from its text to what a connection of a given user may
// do: the shipped policy, the rule syntax, the refusals of malformed files
// with the line they name, and the least rights of a peer nobody knows.
#include "Acl.h"
#include "BusTestSupport.h"
#include "ConfigText.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

using vela::Acl;
using vela::Grants;
using vela::PeerIdentity;
using vela::kRightFetch;
using vela::kRightOwn;
using vela::kRightSet;

using bustest::readFile;

namespace {

const std::string kSource = TSD_SOURCE_DIR;

Acl parsed(const std::string& text)
{
    Acl acl;
    std::string error;
    EXPECT_TRUE(Acl::parse(text, acl, error)) << error;
    return acl;
}

std::string refusal(const std::string& text)
{
    Acl acl;
    std::string error;
    EXPECT_FALSE(Acl::parse(text, acl, error)) << text;
    return error;
}

PeerIdentity user(uid_t uid, const std::string& name, std::vector<gid_t> groups = {},
                  std::vector<std::string> groupNames = {})
{
    PeerIdentity id;
    id.known = true;
    id.uid = uid;
    id.user = name;
    id.groups = std::move(groups);
    id.groupNames = std::move(groupNames);
    return id;
}

PeerIdentity unknown()
{
    PeerIdentity id;
    id.why = "not a socket of this host";
    return id;
}

}  // namespace

TEST(Acl, ShippedPolicyLetsRootDoEverythingTheServicesOwnTheirPathsAndEveryoneElseFetch)
{
    const Acl acl = Acl::shipped();
    const Grants root = acl.grantsFor(vela::identityOfUser(0));
    for (auto right : {kRightOwn, kRightSet, kRightFetch}) {
        EXPECT_TRUE(root.may(right, "sync/param"));
        EXPECT_TRUE(root.mayEverywhere(right));
    }
    const Grants nobody = acl.grantsFor(vela::identityOfUser(65534));
    EXPECT_TRUE(nobody.may(kRightFetch, "sync/param"));
    EXPECT_FALSE(nobody.may(kRightOwn, "sync/param"));
    EXPECT_FALSE(nobody.may(kRightSet, "sync/param"));
    EXPECT_FALSE(nobody.mayAnywhere(kRightOwn));
    EXPECT_FALSE(nobody.mayAnywhere(kRightSet));

    // The services beside tsd, by the names of their users.
    const Grants fwdevd = acl.grantsFor(user(120, "fwdevd"));
    EXPECT_TRUE(fwdevd.may(kRightOwn, "reachableDevices/firewire0/0A7C31000001"));
    EXPECT_FALSE(fwdevd.may(kRightOwn, "sync/param"));
    EXPECT_FALSE(fwdevd.mayAnywhere(kRightSet));
    const Grants paramd = acl.grantsFor(user(121, "tsdparamd"));
    EXPECT_TRUE(paramd.may(kRightOwn, "sync/param"));
    EXPECT_FALSE(paramd.may(kRightOwn, "sync/app"));
    EXPECT_FALSE(paramd.may(kRightOwn, "reachableDevices/firewire0/0A7C31000001"));
    EXPECT_TRUE(paramd.may(kRightFetch, "sync/app"));
}

TEST(Acl, ShippedFileSaysWhatTheBuiltInPolicySays)
{
    const std::string text = readFile(kSource + "/packaging/config/vela-acl.conf");
    ASSERT_FALSE(text.empty());
    const Acl file = parsed(text);
    const Acl builtIn = Acl::shipped();
    for (uid_t uid : {0u, 1u, 65534u, 4711u}) {
        const PeerIdentity id = vela::identityOfUser(uid);
        EXPECT_EQ(file.grantsFor(id).describe(), builtIn.grantsFor(id).describe()) << uid;
    }
    for (const char* name : {"fwdevd", "tsdparamd", "tsdadm"}) {
        EXPECT_EQ(file.grantsFor(user(200, name)).describe(), builtIn.grantsFor(user(200, name)).describe())
            << name;
    }
    EXPECT_EQ(file.grantsFor(unknown()).describe(), builtIn.grantsFor(unknown()).describe());
}

TEST(Acl, MissingDefaultFileMeansTheShippedPolicyButAMissingNamedFileIsAnError)
{
    Acl acl = parsed("all fetch sync/*\n");
    std::string error;
    ASSERT_TRUE(Acl::load("/nonexistent/acl.conf", true, acl, error)) << error;
    EXPECT_TRUE(acl.grantsFor(vela::identityOfUser(0)).mayEverywhere(kRightOwn));
    EXPECT_FALSE(Acl::load("/nonexistent/acl.conf", false, acl, error));
    EXPECT_NE(error.find("/nonexistent/acl.conf"), std::string::npos) << error;
}

TEST(Acl, RulesByUserNameUidGroupNameAndGid)
{
    const Acl acl = parsed(
        "# services own their paths\n"
        "user fwdevd   own   reachableDevices/*\n"
        "user 4711     own   sync/param\n"
        "group tsdadm  set   sync/param\n"
        "group 300     fetch sync/*    other/x   # two patterns\n");
    const Grants fw = acl.grantsFor(user(120, "fwdevd"));
    EXPECT_TRUE(fw.may(kRightOwn, "reachableDevices/firewire0/0A7C31000001"));
    EXPECT_TRUE(fw.may(kRightOwn, "reachableDevices/"));
    EXPECT_FALSE(fw.may(kRightOwn, "reachableDevice"));
    EXPECT_FALSE(fw.may(kRightOwn, "sync/param"));
    EXPECT_FALSE(fw.may(kRightFetch, "reachableDevices/x")) << "rules grant only what they name";

    const Grants param = acl.grantsFor(user(4711, ""));
    EXPECT_TRUE(param.may(kRightOwn, "sync/param"));
    EXPECT_FALSE(param.may(kRightOwn, "sync/params")) << "a pattern without '*' is exact";
    EXPECT_FALSE(param.may(kRightOwn, "sync/para"));

    const Grants admin = acl.grantsFor(user(1000, "alice", {1000, 44}, {"alice", "tsdadm"}));
    EXPECT_TRUE(admin.may(kRightSet, "sync/param"));
    EXPECT_FALSE(admin.may(kRightSet, "sync/app"));
    EXPECT_FALSE(admin.may(kRightOwn, "sync/param"));

    const Grants byGid = acl.grantsFor(user(1001, "bob", {1001, 300}, {"bob", ""}));
    EXPECT_TRUE(byGid.may(kRightFetch, "sync/app"));
    EXPECT_TRUE(byGid.may(kRightFetch, "other/x"));
    EXPECT_FALSE(byGid.may(kRightFetch, "other/xy"));

    EXPECT_EQ(acl.grantsFor(user(1002, "carol", {1002}, {"carol"})).describe(), "nothing");
    // A user named like a group is not in it.
    EXPECT_FALSE(acl.grantsFor(user(1003, "tsdadm")).may(kRightSet, "sync/param"));
}

TEST(Acl, AnUnknownPeerGetsOnlyWhatEveryoneMayFetch)
{
    const Acl acl = parsed(
        "all own,set,fetch public/*\n"
        "all fetch sync/*\n"
        "user 0 own,set,fetch *\n");
    const Grants g = acl.grantsFor(unknown());
    EXPECT_TRUE(g.may(kRightFetch, "public/a"));
    EXPECT_TRUE(g.may(kRightFetch, "sync/app"));
    EXPECT_FALSE(g.may(kRightFetch, "other"));
    EXPECT_FALSE(g.mayAnywhere(kRightOwn));
    EXPECT_FALSE(g.mayAnywhere(kRightSet));

    const Grants none = parsed("user 0 own,set,fetch *\n").grantsFor(unknown());
    EXPECT_FALSE(none.mayAnywhere(kRightFetch));
    EXPECT_EQ(none.describe(), "nothing");
}

TEST(Acl, MalformedRulesAreRefusedNamingTheirLine)
{
    EXPECT_EQ(refusal("user root own *\nuser x write *\n"),
              "line 2: unknown right 'write' (own, set, fetch, separated by commas)");
    EXPECT_EQ(refusal("\n\nusers root own *\n"),
              "line 3: a rule starts with 'user', 'group' or 'all', not 'users'");
    EXPECT_EQ(refusal("user root own\n"), "line 1: a rule needs rights and at least one path pattern");
    EXPECT_EQ(refusal("user\n"), "line 1: user needs a name or a number");
    EXPECT_EQ(refusal("all fetch sync/*/x\n"), "line 1: '*' may only end a path pattern: 'sync/*/x'");
    EXPECT_EQ(refusal("all fetch **\n"), "line 1: '*' may only end a path pattern: '**'");
    EXPECT_EQ(refusal("all own,,fetch *\n"), "line 1: unknown right '' (own, set, fetch, separated by commas)");
    EXPECT_EQ(refusal("user 99999999999 own *\n"), "line 1: bad uid '99999999999'");
    EXPECT_EQ(refusal("all fetch *\nall fetch a\x01" "b\n"), "line 2: control character in the text");
}

TEST(Acl, CommentsBlankLinesAndCarriageReturnsAreIgnored)
{
    const Acl acl = parsed("  # a comment\r\n\r\nall\tfetch\tsync/* # trailing\r\n");
    EXPECT_EQ(acl.ruleCount(), 1u);
    EXPECT_TRUE(acl.grantsFor(user(5, "x")).may(kRightFetch, "sync/app"));
}

TEST(Acl, FileAboveTheSizeLimitIsRefused)
{
    const std::string path = ::testing::TempDir() + "/big-acl.conf";
    {
        std::ofstream out(path);
        const std::string line = "all fetch sync/*\n";
        for (std::size_t n = 0; n <= vela::kMaxConfigFileSize; n += line.size()) {
            out << line;
        }
    }
    Acl acl;
    std::string error;
    EXPECT_FALSE(Acl::load(path, false, acl, error));
    EXPECT_NE(error.find("larger than 1 MiB"), std::string::npos) << error;
    std::remove(path.c_str());
}
