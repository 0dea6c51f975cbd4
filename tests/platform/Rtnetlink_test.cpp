// The walk over the messages of one rtnetlink datagram, the reading of a dump
// answer and the check of who sent a datagram: the link monitor and the
// adapter scan rely on these against whatever lands on their sockets.
#include "Rtnetlink.h"

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

using namespace orv::communication;

namespace {

// A datagram assembled message by message, 4-byte aligned like the kernel's.
class Datagram
{
public:
    Datagram& add(std::uint16_t type, std::uint32_t length, std::uint16_t flags = 0, std::uint32_t seq = 0,
                  std::uint32_t pid = 0, std::vector<char> payload = {})
    {
        nlmsghdr header{};
        header.nlmsg_len = length;
        header.nlmsg_type = type;
        header.nlmsg_flags = flags;
        header.nlmsg_seq = seq;
        header.nlmsg_pid = pid;
        const std::size_t at = m_bytes.size();
        m_bytes.resize(at + NLMSG_ALIGN(sizeof header + payload.size()));
        std::memcpy(m_bytes.data() + at, &header, sizeof header);
        if (!payload.empty()) {
            std::memcpy(m_bytes.data() + at + sizeof header, payload.data(), payload.size());
        }
        return *this;
    }
    Datagram& add(std::uint16_t type) { return add(type, sizeof(nlmsghdr)); }
    Datagram& error(int code, std::uint32_t seq = 0)
    {
        nlmsgerr body{};
        body.error = code;
        std::vector<char> payload(sizeof body);
        std::memcpy(payload.data(), &body, sizeof body);
        return add(NLMSG_ERROR, static_cast<std::uint32_t>(sizeof(nlmsghdr) + sizeof body), 0, seq, 0, payload);
    }
    const char* data() const { return m_bytes.data(); }
    std::size_t size() const { return m_bytes.size(); }

private:
    std::vector<char> m_bytes;
};

std::vector<std::uint16_t> walk(const Datagram& d, bool* complete = nullptr)
{
    std::vector<std::uint16_t> types;
    const bool done = rtnl::forEachMessage(d.data(), d.size(), [&](const nlmsghdr* nlh) {
        types.push_back(nlh->nlmsg_type);
        return true;
    });
    if (complete != nullptr) {
        *complete = done;
    }
    return types;
}

int reply(const Datagram& d, std::uint32_t seq, unsigned portid, std::vector<std::uint16_t>* data = nullptr)
{
    return rtnl::dumpReply(d.data(), d.size(), seq, portid, [&](const nlmsghdr* nlh) {
        if (data != nullptr) {
            data->push_back(nlh->nlmsg_type);
        }
    });
}

}  // namespace

TEST(Rtnetlink, WalkHandsOutEveryMessageInOrder)
{
    Datagram d;
    d.add(RTM_NEWLINK).add(RTM_NEWADDR).add(NLMSG_DONE);
    bool complete = false;
    EXPECT_EQ(walk(d, &complete), (std::vector<std::uint16_t>{RTM_NEWLINK, RTM_NEWADDR, NLMSG_DONE}));
    EXPECT_TRUE(complete);
}

TEST(Rtnetlink, WalkStopsWhenTheHandlerSaysSo)
{
    Datagram d;
    d.add(RTM_NEWLINK).add(RTM_NEWADDR);
    int calls = 0;
    EXPECT_TRUE(rtnl::forEachMessage(d.data(), d.size(), [&](const nlmsghdr*) { return ++calls < 1; }));
    EXPECT_EQ(calls, 1);
}

TEST(Rtnetlink, WalkEndsAtALengthBeyondTheDatagram)
{
    Datagram d;
    d.add(RTM_NEWLINK).add(RTM_NEWADDR, 4096);
    bool complete = true;
    EXPECT_EQ(walk(d, &complete), std::vector<std::uint16_t>{RTM_NEWLINK});
    EXPECT_FALSE(complete);
}

TEST(Rtnetlink, WalkEndsAtALengthShorterThanAHeader)
{
    Datagram d;
    d.add(RTM_NEWLINK, 8);
    bool complete = true;
    EXPECT_TRUE(walk(d, &complete).empty());
    EXPECT_FALSE(complete);
}

TEST(Rtnetlink, WalkEndsAtALengthThatWouldWrapAround)
{
    // Read as a signed number this length passes as negative, and aligned to
    // 4 bytes it becomes 0: a walk that trusted it would stay here forever.
    Datagram d;
    d.add(RTM_NEWLINK, 0xfffffffdu);
    bool complete = true;
    EXPECT_TRUE(walk(d, &complete).empty());
    EXPECT_FALSE(complete);

    Datagram far;
    far.add(RTM_NEWLINK, 0xffffff30u);
    EXPECT_TRUE(walk(far, &complete).empty());
    EXPECT_FALSE(complete);
}

TEST(Rtnetlink, WalkIgnoresATailTooShortForAHeader)
{
    Datagram d;
    d.add(RTM_NEWLINK);
    std::vector<char> bytes(d.data(), d.data() + d.size());
    bytes.resize(bytes.size() + 8, '\x7f');
    std::vector<std::uint16_t> types;
    EXPECT_TRUE(rtnl::forEachMessage(bytes.data(), bytes.size(), [&](const nlmsghdr* nlh) {
        types.push_back(nlh->nlmsg_type);
        return true;
    }));
    EXPECT_EQ(types, std::vector<std::uint16_t>{RTM_NEWLINK});
}

TEST(Rtnetlink, DumpReplyHandsOutDataAndAsksForMore)
{
    Datagram d;
    d.add(RTM_NEWLINK, sizeof(nlmsghdr), NLM_F_MULTI, 7, 99).add(NLMSG_NOOP).add(RTM_NEWADDR, 16, 0, 7, 99);
    std::vector<std::uint16_t> data;
    EXPECT_EQ(reply(d, 7, 99, &data), 1);
    EXPECT_EQ(data, (std::vector<std::uint16_t>{RTM_NEWLINK, RTM_NEWADDR}));
}

TEST(Rtnetlink, DumpReplyEndsWithDoneOrAnAcknowledgement)
{
    Datagram done;
    done.add(RTM_NEWLINK).add(NLMSG_DONE).add(RTM_NEWADDR);
    std::vector<std::uint16_t> data;
    EXPECT_EQ(reply(done, 7, 99, &data), 0);
    EXPECT_EQ(data, std::vector<std::uint16_t>{RTM_NEWLINK});

    Datagram ack;
    ack.error(0);
    EXPECT_EQ(reply(ack, 7, 99), 0);
}

TEST(Rtnetlink, DumpReplyReportsTheKernelsError)
{
    Datagram d;
    d.error(-EPERM);
    EXPECT_EQ(reply(d, 7, 99), -EPERM);

    Datagram shortError;
    shortError.add(NLMSG_ERROR);
    EXPECT_EQ(reply(shortError, 7, 99), -EBADMSG);
}

TEST(Rtnetlink, DumpReplyRefusesAnotherRequestsAnswer)
{
    Datagram otherSeq;
    otherSeq.add(RTM_NEWLINK, sizeof(nlmsghdr), 0, 8, 99);
    EXPECT_EQ(reply(otherSeq, 7, 99), -EPROTO);

    Datagram otherPort;
    otherPort.add(RTM_NEWLINK, sizeof(nlmsghdr), 0, 7, 98);
    EXPECT_EQ(reply(otherPort, 7, 99), -ESRCH);
}

TEST(Rtnetlink, DumpReplyReportsAnInterruptedDump)
{
    Datagram d;
    d.add(RTM_NEWLINK, sizeof(nlmsghdr), NLM_F_DUMP_INTR, 7, 99);
    EXPECT_EQ(reply(d, 7, 99), -EINTR);
}

TEST(Rtnetlink, DumpReplyRefusesAMalformedDatagram)
{
    Datagram d;
    d.add(RTM_NEWLINK, 0xfffffffdu);
    EXPECT_EQ(reply(d, 7, 99), -EBADMSG);
}

TEST(Rtnetlink, OnlyTheKernelIsHeard)
{
    mnl_socket* listener = mnl_socket_open(NETLINK_ROUTE);
    mnl_socket* stranger = mnl_socket_open(NETLINK_ROUTE);
    ASSERT_NE(listener, nullptr);
    ASSERT_NE(stranger, nullptr);
    ASSERT_EQ(mnl_socket_bind(listener, 0, MNL_SOCKET_AUTOPID), 0);
    ASSERT_EQ(mnl_socket_bind(stranger, 0, MNL_SOCKET_AUTOPID), 0);

    // Another process's datagram, addressed straight to the listener.
    Datagram forged;
    forged.add(RTM_NEWLINK, 0xfffffffdu);
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_pid = mnl_socket_get_portid(listener);
    ASSERT_EQ(::sendto(mnl_socket_get_fd(stranger), forged.data(), forged.size(), 0,
                       reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(forged.size()));

    std::vector<char> buffer(rtnl::kReceiveBufferSize);
    EXPECT_EQ(rtnl::receiveFromKernel(mnl_socket_get_fd(listener), buffer.data(), buffer.size(), MSG_DONTWAIT),
              -EAGAIN);

    // The kernel's answer to a request of the listener's own is heard.
    ASSERT_EQ(rtnl::requestDump(listener, RTM_GETLINK, 1), 0);
    const long n = rtnl::receiveFromKernel(mnl_socket_get_fd(listener), buffer.data(), buffer.size(), 0);
    EXPECT_GT(n, 0);

    mnl_socket_close(stranger);
    mnl_socket_close(listener);
}
