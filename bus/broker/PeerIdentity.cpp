#include "PeerIdentity.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vela {

namespace {

// Most users are in a handful of groups; the lookups grow their buffers when
// one is in more.
constexpr std::size_t kInitialGroups = 32;
constexpr int kMaxGroups = 65536;

std::string groupName(gid_t gid)
{
    std::vector<char> buf(1024);
    for (;;) {
        group gr;
        group* found = nullptr;
        const int rc = ::getgrgid_r(gid, &gr, buf.data(), buf.size(), &found);
        if (rc == ERANGE && buf.size() < 1024 * 1024) {
            buf.resize(buf.size() * 4);
            continue;
        }
        return rc == 0 && found ? std::string(found->gr_name) : std::string();
    }
}

}  // namespace

std::string PeerIdentity::describe() const
{
    if (!known) {
        return "unknown user (" + why + ")";
    }
    std::string s = "uid " + std::to_string(uid);
    if (!user.empty()) {
        s += " (" + user + ")";
    }
    return s;
}

PeerIdentity identityOfUser(uid_t uid, const gid_t* primaryGid)
{
    PeerIdentity id;
    id.known = true;
    id.uid = uid;
    std::vector<char> buf(1024);
    passwd pw;
    passwd* found = nullptr;
    for (;;) {
        const int rc = ::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found);
        if (rc == ERANGE && buf.size() < 1024 * 1024) {
            buf.resize(buf.size() * 4);
            continue;
        }
        if (rc != 0) {
            found = nullptr;
        }
        break;
    }
    if (primaryGid) {
        id.groups.push_back(*primaryGid);
    }
    if (found) {
        id.user = found->pw_name;
        const gid_t base = primaryGid ? *primaryGid : found->pw_gid;
        std::vector<gid_t> list(kInitialGroups);
        for (;;) {
            int count = static_cast<int>(list.size());
            if (::getgrouplist(id.user.c_str(), base, list.data(), &count) >= 0) {
                list.resize(static_cast<std::size_t>(count));
                break;
            }
            // count now says how many there are; a list that does not grow,
            // or an absurd one, is given up rather than chased.
            if (count <= static_cast<int>(list.size()) || count > kMaxGroups) {
                list.clear();
                break;
            }
            list.resize(static_cast<std::size_t>(count));
        }
        if (!primaryGid) {
            id.groups.push_back(found->pw_gid);
        }
        for (gid_t g : list) {
            if (std::find(id.groups.begin(), id.groups.end(), g) == id.groups.end()) {
                id.groups.push_back(g);
            }
        }
    }
    for (gid_t g : id.groups) {
        id.groupNames.push_back(groupName(g));
    }
    return id;
}

PeerIdentity unixPeerIdentity(int fd)
{
    ucred cred;
    socklen_t len = sizeof cred;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0) {
        PeerIdentity id;
        id.why = std::string("SO_PEERCRED: ") + std::strerror(errno);
        return id;
    }
    return identityOfUser(cred.uid, &cred.gid);
}

}  // namespace vela
