// Feeds arbitrary datagrams to the translation of rtnetlink link and address
// messages, walked both ways the platform library walks them: message by
// message as the link monitor reads live notifications, and as one datagram
// of a table dump. The walk stays inside the datagram and ends; a link that is
// taken has a positive index and a name that fits inside its message; an
// address that is taken is a dotted IPv4 address with a contiguous mask. The
// datagram lies in a buffer of exactly its size, so that a read past it is
// caught.

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Rtnetlink.h"
#include "support/Check.h"

using namespace orv::communication;

namespace {

void checkAddressText(const std::string& text)
{
    in_addr raw{};
    FUZZ_CHECK(inet_pton(AF_INET, text.c_str(), &raw) == 1);
}

void checkMask(const std::string& text)
{
    in_addr raw{};
    FUZZ_CHECK(inet_pton(AF_INET, text.c_str(), &raw) == 1);
    const std::uint32_t mask = ntohl(raw.s_addr);
    // Ones from the top, then zeros only.
    FUZZ_CHECK((~mask & (~mask + 1)) == 0);
}

void translate(const nlmsghdr* nlh, const char* begin, std::size_t size)
{
    Netadapter adapter;
    if (rtnl::parseLink(nlh, adapter)) {
        FUZZ_CHECK(nlh->nlmsg_type == RTM_NEWLINK || nlh->nlmsg_type == RTM_DELLINK);
        FUZZ_CHECK(adapter.getInterfaceIndex() > 0);
        FUZZ_CHECK(adapter.getName().size() < size);
        FUZZ_CHECK(adapter.getName().find('\0') == std::string::npos);
        const char* message = reinterpret_cast<const char*>(nlh);
        FUZZ_CHECK(message >= begin && message + nlh->nlmsg_len <= begin + size);
    }
    unsigned index = 0;
    Ipv4Address address;
    if (rtnl::parseIpv4Address(nlh, index, address)) {
        FUZZ_CHECK(nlh->nlmsg_type == RTM_NEWADDR || nlh->nlmsg_type == RTM_DELADDR);
        checkAddressText(address.address);
        checkMask(address.mask);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    // malloc's alignment is what the kernel's datagrams have in the receive
    // buffer; the size is the datagram's own.
    std::unique_ptr<char, decltype(&std::free)> buffer(static_cast<char*>(std::malloc(size)), &std::free);
    FUZZ_CHECK(buffer != nullptr);
    std::memcpy(buffer.get(), data, size);

    std::size_t walked = 0;
    rtnl::forEachMessage(buffer.get(), size, [&](const nlmsghdr* nlh) {
        FUZZ_CHECK(reinterpret_cast<const char*>(nlh) >= buffer.get());
        walked += nlh->nlmsg_len;
        FUZZ_CHECK(walked <= size);
        translate(nlh, buffer.get(), size);
        return true;
    });

    const int result = rtnl::dumpReply(buffer.get(), size, 0, 0,
                                       [&](const nlmsghdr* nlh) { translate(nlh, buffer.get(), size); });
    FUZZ_CHECK(result <= 1);
    return 0;
}
