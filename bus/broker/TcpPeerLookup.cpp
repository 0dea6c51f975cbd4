#include "TcpPeerLookup.h"

#include <libmnl/libmnl.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace vela {

namespace {

// The kernel answers a lookup at once; this only guards against a kernel
// that never does (ms).
constexpr int kReplyTimeoutMs = 500;

struct Reply
{
    bool found = false;
    uid_t uid = 0;
};

int onMessage(const nlmsghdr* nlh, void* data)
{
    if (nlh->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        mnl_nlmsg_get_payload_len(nlh) < sizeof(inet_diag_msg)) {
        return MNL_CB_OK;
    }
    const auto* msg = static_cast<const inet_diag_msg*>(mnl_nlmsg_get_payload(nlh));
    auto* reply = static_cast<Reply*>(data);
    reply->found = true;
    reply->uid = msg->idiag_uid;
    return MNL_CB_OK;
}

// The far end of fd as the key of the kernel's lookup: the peer's socket has
// the peer's address as its source and ours as its destination. An IPv4 peer
// of a dual-stack listener shows as a mapped IPv6 address; its socket is an
// IPv4 one.
bool fillRequest(int fd, inet_diag_req_v2& req)
{
    sockaddr_storage local;
    sockaddr_storage peer;
    socklen_t len = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) < 0) {
        return false;
    }
    len = sizeof peer;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len) < 0) {
        return false;
    }
    std::memset(&req, 0, sizeof req);
    req.sdiag_protocol = IPPROTO_TCP;
    req.idiag_states = ~0u;
    req.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    req.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    if (local.ss_family == AF_INET && peer.ss_family == AF_INET) {
        const auto& l = reinterpret_cast<const sockaddr_in&>(local);
        const auto& p = reinterpret_cast<const sockaddr_in&>(peer);
        req.sdiag_family = AF_INET;
        req.id.idiag_sport = p.sin_port;
        req.id.idiag_dport = l.sin_port;
        std::memcpy(req.id.idiag_src, &p.sin_addr, sizeof p.sin_addr);
        std::memcpy(req.id.idiag_dst, &l.sin_addr, sizeof l.sin_addr);
        return true;
    }
    if (local.ss_family == AF_INET6 && peer.ss_family == AF_INET6) {
        const auto& l = reinterpret_cast<const sockaddr_in6&>(local);
        const auto& p = reinterpret_cast<const sockaddr_in6&>(peer);
        req.id.idiag_sport = p.sin6_port;
        req.id.idiag_dport = l.sin6_port;
        if (IN6_IS_ADDR_V4MAPPED(&p.sin6_addr) && IN6_IS_ADDR_V4MAPPED(&l.sin6_addr)) {
            req.sdiag_family = AF_INET;
            std::memcpy(req.id.idiag_src, &p.sin6_addr.s6_addr[12], 4);
            std::memcpy(req.id.idiag_dst, &l.sin6_addr.s6_addr[12], 4);
        } else {
            req.sdiag_family = AF_INET6;
            std::memcpy(req.id.idiag_src, &p.sin6_addr, sizeof p.sin6_addr);
            std::memcpy(req.id.idiag_dst, &l.sin6_addr, sizeof l.sin6_addr);
        }
        return true;
    }
    return false;
}

}  // namespace

TcpPeerLookup::TcpPeerLookup()
{
    m_socket = mnl_socket_open2(NETLINK_SOCK_DIAG, SOCK_CLOEXEC);
    if (!m_socket) {
        m_openError = -errno;
        return;
    }
    if (mnl_socket_bind(m_socket, 0, MNL_SOCKET_AUTOPID) < 0) {
        m_openError = -errno;
        mnl_socket_close(m_socket);
        m_socket = nullptr;
        return;
    }
    m_portid = mnl_socket_get_portid(m_socket);
    timeval tv{0, kReplyTimeoutMs * 1000};
    ::setsockopt(mnl_socket_get_fd(m_socket), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

TcpPeerLookup::~TcpPeerLookup()
{
    if (m_socket) {
        mnl_socket_close(m_socket);
    }
}

PeerIdentity TcpPeerLookup::identify(int fd)
{
    uid_t uid = 0;
    const int rc = lookup(fd, uid);
    if (rc < 0) {
        PeerIdentity id;
        id.why = rc == -ENOENT ? std::string("not a socket of this host")
                               : std::string("socket lookup: ") + std::strerror(-rc);
        return id;
    }
    return identityOfUser(uid);
}

int TcpPeerLookup::lookup(int fd, uid_t& uid)
{
    if (!m_socket) {
        return m_openError < 0 ? m_openError : -ENOTCONN;
    }
    inet_diag_req_v2 req;
    if (!fillRequest(fd, req)) {
        return -EAFNOSUPPORT;
    }
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf.data());
    nlh->nlmsg_type = SOCK_DIAG_BY_FAMILY;
    nlh->nlmsg_flags = NLM_F_REQUEST;
    nlh->nlmsg_seq = ++m_seq;
    void* extra = mnl_nlmsg_put_extra_header(nlh, sizeof req);
    std::memcpy(extra, &req, sizeof req);
    if (mnl_socket_sendto(m_socket, nlh, nlh->nlmsg_len) < 0) {
        return -errno;
    }
    Reply reply;
    // Answers to earlier lookups that timed out may still be queued; they
    // carry older sequence numbers and are skipped.
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(m_socket, buf.data(), buf.size());
        if (n < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? -ETIMEDOUT : -errno;
        }
        const int rc = mnl_cb_run(buf.data(), static_cast<std::size_t>(n), m_seq, m_portid, onMessage, &reply);
        if (rc < 0) {
            if (errno == ESRCH || errno == EPROTO) {
                continue;  // a stale answer (sequence mismatch)
            }
            return -errno;
        }
        break;
    }
    if (!reply.found) {
        return -ENOENT;
    }
    uid = reply.uid;
    return 0;
}

}  // namespace vela
