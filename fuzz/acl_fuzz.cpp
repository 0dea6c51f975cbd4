// Feeds arbitrary bytes as the broker's access policy (acl.conf). A policy
// either parses or is refused with "line N: reason" (or the reason alone for
// an unreadable file), and the reason never carries a control byte, since it
// ends up in the log. A parsed policy is asked for the rights of a few
// connections, the unknown one included: whoever the kernel cannot name may
// never own or set, and a right held everywhere holds on every path.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Acl.h"
#include "support/Check.h"

namespace {

void checkReason(const std::string& error)
{
    FUZZ_CHECK(!error.empty());
    for (char ch : error)
        FUZZ_CHECK(static_cast<unsigned char>(ch) >= 0x20 || ch == '\t');
}

void checkGrants(const vela::Grants& grants, std::string_view path)
{
    for (vela::Right right : {vela::kRightOwn, vela::kRightSet, vela::kRightFetch}) {
        if (grants.mayEverywhere(right)) {
            FUZZ_CHECK(grants.mayAnywhere(right));
            FUZZ_CHECK(grants.may(right, path));
            FUZZ_CHECK(grants.may(right, "x"));
        }
        if (!grants.mayAnywhere(right))
            FUZZ_CHECK(!grants.may(right, path));
    }
    FUZZ_CHECK(!grants.describe().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    vela::Acl acl;
    std::string error;
    if (!vela::Acl::parse(text, acl, error)) {
        checkReason(error);
        FUZZ_CHECK(acl.ruleCount() == 0);
        return 0;
    }
    // Every rule takes a line of its own.
    std::size_t lines = 1;
    for (char ch : text)
        lines += ch == '\n';
    FUZZ_CHECK(acl.ruleCount() <= lines);

    // The last line's last word, as a path to ask about.
    const std::size_t blank = text.find_last_of(" \t\n");
    const std::string_view path = blank == std::string_view::npos ? text : text.substr(blank + 1);

    vela::PeerIdentity unknown;
    unknown.why = "fuzz";
    const vela::Grants none = acl.grantsFor(unknown);
    FUZZ_CHECK(!none.mayAnywhere(vela::kRightOwn));
    FUZZ_CHECK(!none.mayAnywhere(vela::kRightSet));
    checkGrants(none, path);

    for (uid_t uid : {0u, 1000u, 65534u}) {
        vela::PeerIdentity id;
        id.known = true;
        id.uid = uid;
        id.user = uid == 0 ? "root" : "user" + std::to_string(uid);
        id.groups = {uid, 100};
        id.groupNames = {id.user, "users"};
        const vela::Grants g = acl.grantsFor(id);
        checkGrants(g, path);
        // A known user holds at least what everyone holds.
        for (vela::Right right : {vela::kRightOwn, vela::kRightSet, vela::kRightFetch})
            if (none.may(right, path))
                FUZZ_CHECK(g.may(right, path));
    }
    return 0;
}
