#pragma once

#include "PeerIdentity.h"

struct mnl_socket;

namespace vela {

// Learns who made the far end of a TCP connection that comes from this host:
// the kernel's socket table (sock_diag) knows the peer's socket by its
// addresses and ports and tells the uid of the user that created it. Needs no
// privilege. The lookup is one netlink request answered at once, made when a
// connection is accepted.
class TcpPeerLookup
{
public:
    TcpPeerLookup();
    ~TcpPeerLookup();
    TcpPeerLookup(const TcpPeerLookup&) = delete;
    TcpPeerLookup& operator=(const TcpPeerLookup&) = delete;

    // The identity of the peer of the connected socket fd; unknown (with the
    // reason) when the peer is not a socket of this host or the kernel cannot
    // be asked.
    PeerIdentity identify(int fd);

private:
    mnl_socket* m_socket = nullptr;
    unsigned m_portid = 0;
    unsigned m_seq = 0;
    int m_openError = 0;

    // 0 and the uid, or a negative errno.
    int lookup(int fd, uid_t& uid);
};

}  // namespace vela
