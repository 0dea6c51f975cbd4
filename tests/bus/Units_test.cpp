// The broker's systemd units: they parse, the socket is the bus's address,
// and the limits they set fit the default quotas (a default raised without
// the unit makes this fail).
#include "Broker.h"
#include "BusTestSupport.h"
#include "Limits.h"
#include "Protocol.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

using bustest::readFile;

namespace {

const std::string kSource = TSD_SOURCE_DIR;

// The value of "KEY=" in a unit, or "".
std::string setting(const std::string& unit, const std::string& key)
{
    const std::string needle = "\n" + key + "=";
    const auto at = unit.find(needle);
    if (at == std::string::npos) {
        return {};
    }
    const auto start = at + needle.size();
    return unit.substr(start, unit.find('\n', start) - start);
}

std::string run(const std::string& command, int& status)
{
    std::string out;
    FILE* p = ::popen((command + " 2>&1").c_str(), "r");
    char buf[4096];
    std::size_t n;
    while (p && (n = std::fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    status = p ? ::pclose(p) : -1;
    return out;
}

}  // namespace

TEST(Units, SocketHoldsTheBusAddressAndTheServiceIsActivatedByIt)
{
    const std::string socket = readFile(kSource + "/packaging/systemd/velad.socket");
    const std::string service = readFile(kSource + "/packaging/systemd/velad.service.in");
    EXPECT_EQ(setting(socket, "ListenStream"), std::string(vela::protocol::kDefaultAddress) + ":" +
                                                   std::to_string(vela::protocol::kDefaultPort));
    EXPECT_EQ(setting(service, "Type"), "notify");
    EXPECT_EQ(setting(service, "Requires"), "velad.socket");
    EXPECT_EQ(setting(service, "ExecStart"), "@CMAKE_INSTALL_FULL_SBINDIR@/velad")
        << "the address comes with the socket, the quotas and the policy from /etc/vela";
}

TEST(Units, LimitsFitTheDefaultQuotas)
{
    const std::string service = readFile(kSource + "/packaging/systemd/velad.service.in");
    const vela::Limits d;
    const unsigned long fds = std::stoul(setting(service, "LimitNOFILE"));
    EXPECT_GE(fds, d.maxConnections + vela::Broker::kReservedFds);

    const std::string memory = setting(service, "MemoryMax");
    ASSERT_FALSE(memory.empty());
    ASSERT_EQ(memory.back(), 'M');
    const std::size_t allowed = std::stoul(memory) * 1024 * 1024;
    const std::size_t mib = 1024 * 1024;
    // Stored values, unread output, the kernel's send buffers (doubled), the
    // parse of one largest frame, code and bookkeeping.
    const std::size_t needed = d.maxStoredBytes + d.maxTotalBacklogBytes + 2 * d.sendBufferBytes * d.maxConnections +
                               60 * mib + 10 * mib;
    EXPECT_GE(allowed, needed) << "MiB needed: " << needed / mib;
}

TEST(Units, ParseWithoutComplaint)
{
    const std::string dir = ::testing::TempDir() + "/velad-units." + std::to_string(::getpid());
    ::mkdir(dir.c_str(), 0755);
    {
        std::string service = readFile(kSource + "/packaging/systemd/velad.service.in");
        const std::string placeholder = "@CMAKE_INSTALL_FULL_SBINDIR@";
        service.replace(service.find(placeholder), placeholder.size(), testsupport::binDir());
        std::ofstream(dir + "/velad.service") << service;
        std::ofstream(dir + "/velad.socket") << readFile(kSource + "/packaging/systemd/velad.socket");
    }
    int status = 0;
    const std::string out =
        run("systemd-analyze verify --man=no " + dir + "/velad.socket " + dir + "/velad.service", status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(out, "");
    ::unlink((dir + "/velad.service").c_str());
    ::unlink((dir + "/velad.socket").c_str());
    ::rmdir(dir.c_str());
}

TEST(ManualPages, RenderWithoutWarnings)
{
    for (const char* page : {"velad.8", "vela.1", "vela-acl.conf.5", "velad.conf.5"}) {
        int status = 0;
        const std::string out = run("groff -man -ww -z " + kSource + "/man/" + page, status);
        EXPECT_EQ(status, 0) << page << ": " << out;
        EXPECT_EQ(out, "") << page;
    }
}
