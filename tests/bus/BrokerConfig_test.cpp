// velad.conf: every quota has a name, a default and a range; the file is read
// over the defaults and a bad line is refused with its number.
#include "BrokerConfig.h"

#include <gtest/gtest.h>

#include <fstream>

using vela::Limits;

namespace {

const std::string kSource = TSD_SOURCE_DIR;

std::string refusal(const std::string& text)
{
    Limits limits;
    std::string error;
    EXPECT_FALSE(vela::parseBrokerConfig(text, limits, error)) << text;
    return error;
}

}  // namespace

TEST(BrokerConfig, EveryQuotaHasAName)
{
    Limits l;
    std::string error;
    ASSERT_TRUE(vela::parseBrokerConfig("max-connections 100\n"
                                        "max-connections-per-user 10\n"
                                        "hello-timeout-ms 1500\n"
                                        "max-states-per-connection 50\n"
                                        "max-fetches-per-connection 5\n"
                                        "max-pending-sets-per-connection 6\n"
                                        "max-path-length 64\n"
                                        "max-stored-bytes 8M\n"
                                        "max-backlog-bytes 2048K\n"
                                        "max-total-backlog-bytes 1G\n"
                                        "send-buffer-bytes 128K\n"
                                        "set-timeout-ms 700\n"
                                        "log-rate 0.5\n"
                                        "log-burst 7\n"
                                        "peer-log-rate 0\n"
                                        "peer-log-burst 3\n"
                                        "log-line-max 200\n",
                                        l, error))
        << error;
    EXPECT_EQ(l.maxConnections, 100u);
    EXPECT_EQ(l.maxConnectionsPerUser, 10u);
    EXPECT_EQ(l.helloTimeout.count(), 1500);
    EXPECT_EQ(l.maxStatesPerConnection, 50u);
    EXPECT_EQ(l.maxFetchesPerConnection, 5u);
    EXPECT_EQ(l.maxPendingSetsPerConnection, 6u);
    EXPECT_EQ(l.maxPathLength, 64u);
    EXPECT_EQ(l.maxStoredBytes, 8u * 1024 * 1024);
    EXPECT_EQ(l.maxBacklogBytes, 2u * 1024 * 1024);
    EXPECT_EQ(l.maxTotalBacklogBytes, 1024u * 1024 * 1024);
    EXPECT_EQ(l.sendBufferBytes, 128u * 1024);
    EXPECT_EQ(l.setTimeout.count(), 700);
    EXPECT_DOUBLE_EQ(l.logRate, 0.5);
    EXPECT_EQ(l.logBurst, 7u);
    EXPECT_DOUBLE_EQ(l.peerLogRate, 0.0);
    EXPECT_EQ(l.peerLogBurst, 3u);
    EXPECT_EQ(l.logLineMax, 200u);
}

TEST(BrokerConfig, UnnamedQuotasKeepTheirDefaults)
{
    Limits l;
    std::string error;
    ASSERT_TRUE(vela::parseBrokerConfig("# only one\nmax-fetches-per-connection 3\n", l, error)) << error;
    const Limits d;
    EXPECT_EQ(l.maxFetchesPerConnection, 3u);
    EXPECT_EQ(l.maxConnections, d.maxConnections);
    EXPECT_EQ(l.maxBacklogBytes, d.maxBacklogBytes);
    EXPECT_EQ(l.helloTimeout, d.helloTimeout);
}

TEST(BrokerConfig, ShippedFileHoldsTheDefaults)
{
    std::ifstream in(kSource + "/packaging/config/velad.conf");
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(text.empty());
    // Every default written out, with a value that differs from it, must
    // read back as the default: the file documents what the broker does
    // without it.
    Limits l;
    l.maxConnections = 1;
    l.maxStoredBytes = 1;
    l.logRate = 123;
    std::string error;
    ASSERT_TRUE(vela::parseBrokerConfig(text, l, error)) << error;
    const Limits d;
    EXPECT_EQ(l.maxConnections, d.maxConnections);
    EXPECT_EQ(l.maxConnectionsPerUser, d.maxConnectionsPerUser);
    EXPECT_EQ(l.helloTimeout, d.helloTimeout);
    EXPECT_EQ(l.maxStatesPerConnection, d.maxStatesPerConnection);
    EXPECT_EQ(l.maxFetchesPerConnection, d.maxFetchesPerConnection);
    EXPECT_EQ(l.maxPendingSetsPerConnection, d.maxPendingSetsPerConnection);
    EXPECT_EQ(l.maxPathLength, d.maxPathLength);
    EXPECT_EQ(l.maxStoredBytes, d.maxStoredBytes);
    EXPECT_EQ(l.maxBacklogBytes, d.maxBacklogBytes);
    EXPECT_EQ(l.maxTotalBacklogBytes, d.maxTotalBacklogBytes);
    EXPECT_EQ(l.sendBufferBytes, d.sendBufferBytes);
    EXPECT_EQ(l.setTimeout, d.setTimeout);
    EXPECT_DOUBLE_EQ(l.logRate, d.logRate);
    EXPECT_EQ(l.logBurst, d.logBurst);
    EXPECT_DOUBLE_EQ(l.peerLogRate, d.peerLogRate);
    EXPECT_EQ(l.peerLogBurst, d.peerLogBurst);
    EXPECT_EQ(l.logLineMax, d.logLineMax);
}

TEST(BrokerConfig, BadLinesAreRefusedNamingTheLine)
{
    EXPECT_EQ(refusal("max-connections 10\nmax-conections 5\n"), "line 2: unknown setting 'max-conections'");
    EXPECT_EQ(refusal("max-connections\n"), "line 1: max-connections takes one value");
    EXPECT_EQ(refusal("max-connections 1 2\n"), "line 1: max-connections takes one value");
    EXPECT_EQ(refusal("log-burst 3\n\nlog-burst 4\n"), "line 3: log-burst is set twice");
    EXPECT_EQ(refusal("max-connections 0\n"), "line 1: bad value '0' for max-connections (1..65536)");
    EXPECT_EQ(refusal("max-connections -1\n"), "line 1: bad value '-1' for max-connections (1..65536)");
    EXPECT_EQ(refusal("max-connections 10k\n"), "line 1: bad value '10k' for max-connections (1..65536)");
    EXPECT_EQ(refusal("max-backlog-bytes 1M\n"),
              "line 1: bad value '1M' for max-backlog-bytes (2M..4096M)");
    EXPECT_EQ(refusal("max-stored-bytes 5T\n"), "line 1: bad value '5T' for max-stored-bytes (1M..16384M)");
    EXPECT_EQ(refusal("send-buffer-bytes 8K\n"), "line 1: bad value '8K' for send-buffer-bytes (64K..4M)");
    EXPECT_EQ(refusal("hello-timeout-ms 1.5\n"), "line 1: bad value '1.5' for hello-timeout-ms (100..600000)");
    EXPECT_EQ(refusal("log-rate nan\n"), "line 1: bad value 'nan' for log-rate (0..1000000)");
    EXPECT_EQ(refusal("max-backlog-bytes 8M\nmax-total-backlog-bytes 4M\n"),
              "max-total-backlog-bytes must not be below max-backlog-bytes");
}

TEST(BrokerConfig, PerUserConnectionsNeverExceedTheTotal)
{
    Limits l;
    std::string error;
    ASSERT_TRUE(vela::parseBrokerConfig("max-connections 8\nmax-connections-per-user 20\n", l, error));
    EXPECT_EQ(l.maxConnectionsPerUser, 8u);
}

TEST(BrokerConfig, MissingDefaultFileKeepsTheDefaultsButANamedOneMustExist)
{
    Limits l;
    std::string error;
    EXPECT_TRUE(vela::loadBrokerConfig("/nonexistent/velad.conf", true, l, error));
    EXPECT_FALSE(vela::loadBrokerConfig("/nonexistent/velad.conf", false, l, error));
    EXPECT_EQ(error.rfind("/nonexistent/velad.conf: ", 0), 0u) << error;
}
