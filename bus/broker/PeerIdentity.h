#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vela {

// Who is at the far end of a connection, as far as the kernel can tell: the
// user that made the peer's socket, and that user's groups from the user
// database. Unknown when the kernel could not say (a peer on another host, a
// socket that vanished before it was looked up); such a peer gets the least
// rights the access policy has.
struct PeerIdentity
{
    bool known = false;
    uid_t uid = 0;
    std::string user;  // name in the user database; empty when it has none
    // The primary group first (when known), then every other group the user
    // database lists for the user.
    std::vector<gid_t> groups;
    std::vector<std::string> groupNames;  // same order; empty for a group without name
    std::string why;                      // unknown: the reason, for the log

    // "uid 1000 (alice)", "uid 4711", or "unknown user (why)".
    std::string describe() const;
};

// The identity of uid: its name and groups from the user database. With
// primaryGid (a Unix-socket peer's credentials tell it) that group comes
// first; otherwise the user database's primary group does.
PeerIdentity identityOfUser(uid_t uid, const gid_t* primaryGid = nullptr);

// The identity of the process at the far end of a connected Unix socket, as
// it was when it connected (SO_PEERCRED).
PeerIdentity unixPeerIdentity(int fd);

}  // namespace vela
