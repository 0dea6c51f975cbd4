#pragma once

#include <string>

namespace testsupport {

// Gives the test process a mount namespace of its own, so that a test can put
// the files the daemon reads (/etc/TimeSourceDaemonConfig.xml, the device
// tree, the time-service scripts, /dev/log) in place without touching the
// machine. Everything it mounts vanishes with the process.
//
// enter() must run while the process is still single-threaded (the test
// main does it before any test): unshare(CLONE_NEWNS) refuses threaded callers.
class PrivateMounts
{
public:
    // Unshares the mount namespace, makes every mount private and mounts a
    // scratch tmpfs on /mnt. Returns false (with a message on stderr) when the
    // kernel refuses, e.g. without root.
    static bool enter();
    static bool active();

    // Replaces directory dir by a tmpfs that holds a symlink to each of its
    // original entries (reached through a private bind mount of the original),
    // so that single entries can then be added or replaced with
    // writeFile()/removeEntry() while everything else keeps working. Works for
    // /proc, /dev, /etc and /usr/bin alike. Shadowing a directory twice is a
    // no-op. Returns false on failure.
    static bool shadow(const std::string& dir);

    // Writes content to path (an existing symlink there is replaced by a
    // regular file). The parent directories are created. mode: file mode.
    static bool writeFile(const std::string& path, const std::string& content, unsigned mode = 0644);
    // The whole content of path; empty when it cannot be read.
    static std::string readFile(const std::string& path);
    static bool removeEntry(const std::string& path);

    // A fresh directory under the scratch tmpfs, e.g. for sockets and logs.
    static std::string scratchDir(const std::string& name);

    // The device-tree module type as the daemon reads it
    // (/proc/device-tree/stratova/moduletype, ended by a NUL byte); an empty
    // optional-like flag removes it again.
    static bool setModuleType(const std::string& type);
    static bool removeModuleType();
};

}  // namespace testsupport
