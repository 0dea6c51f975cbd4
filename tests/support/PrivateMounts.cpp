#include "testsupport/PrivateMounts.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <iostream>
#include <set>

namespace testsupport {
namespace {

const char kScratch[] = "/mnt";
bool g_active = false;
std::set<std::string> g_shadowed;

bool fail(const std::string& what)
{
    std::cerr << "PrivateMounts: " << what << ": " << std::strerror(errno) << std::endl;
    return false;
}

bool makeDirs(const std::string& path)
{
    std::string partial;
    std::size_t pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        partial = path.substr(0, pos);
        if (partial.empty())
            continue;
        if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST)
            return fail("mkdir " + partial);
    }
    return true;
}

std::string parentOf(const std::string& path)
{
    auto slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The innermost shadowed directory that contains path, or "".
std::string shadowRootOf(const std::string& path)
{
    std::string best;
    for (const auto& dir : g_shadowed) {
        if (path.compare(0, dir.size() + 1, dir + "/") == 0 && dir.size() > best.size())
            best = dir;
    }
    return best;
}

// A shadowed /proc lists only the processes that existed when it was made,
// but a process started later needs its own /proc/PID too: the sanitizers'
// leak check at exit, for one, reads /proc/PID/task. Every process forked
// from here on adds its entry, a link into the original like the others.
// Runs in the child right after fork, so it only formats into fixed buffers
// and calls symlink(2).
char g_procOriginal[256];

void appendNumber(char*& at, const char* end, unsigned long value)
{
    char digits[24];
    int count = 0;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count > 0 && at < end)
        *at++ = digits[--count];
}

void appendText(char*& at, const char* end, const char* text)
{
    while (*text != '\0' && at < end)
        *at++ = *text++;
}

void exposeForkedProcess()
{
    const auto pid = static_cast<unsigned long>(::getpid());
    char target[sizeof g_procOriginal + 32];
    char link[64];
    char* at = target;
    appendText(at, target + sizeof target - 1, g_procOriginal);
    appendText(at, target + sizeof target - 1, "/");
    appendNumber(at, target + sizeof target - 1, pid);
    *at = '\0';
    at = link;
    appendText(at, link + sizeof link - 1, "/proc/");
    appendNumber(at, link + sizeof link - 1, pid);
    *at = '\0';
    [[maybe_unused]] const int rc = ::symlink(target, link);
}

}  // namespace

bool PrivateMounts::enter()
{
    if (g_active)
        return true;
    if (::unshare(CLONE_NEWNS) != 0)
        return fail("unshare(CLONE_NEWNS)");
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return fail("make / private");
    if (::mount("tsdtest", kScratch, "tmpfs", 0, "mode=0755") != 0)
        return fail("tmpfs on /mnt");
    g_active = true;
    return true;
}

bool PrivateMounts::active()
{
    return g_active;
}

std::string PrivateMounts::scratchDir(const std::string& name)
{
    std::string dir = std::string(kScratch) + "/" + name;
    makeDirs(dir);
    return dir;
}

bool PrivateMounts::shadow(const std::string& dir)
{
    if (!g_active) {
        errno = EPERM;
        return fail("shadow " + dir + " outside a private mount namespace");
    }
    if (g_shadowed.count(dir))
        return true;
    // Where a shadowed parent already holds a symlink for dir, follow it:
    // the original directory is then reached through the parent's bind mount.
    std::string original = scratchDir("orig") + dir;
    if (!makeDirs(original))
        return false;
    if (::mount(dir.c_str(), original.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return fail("bind " + dir);
    if (::mount("tsdshadow", dir.c_str(), "tmpfs", 0, "mode=0755") != 0)
        return fail("tmpfs on " + dir);
    DIR* d = ::opendir(original.c_str());
    if (!d)
        return fail("opendir " + original);
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..")
            continue;
        std::string target = original + "/" + name;
        if (::symlink(target.c_str(), (dir + "/" + name).c_str()) != 0) {
            ::closedir(d);
            return fail("symlink " + dir + "/" + name);
        }
    }
    ::closedir(d);
    g_shadowed.insert(dir);
    if (dir == "/proc" && original.size() < sizeof g_procOriginal) {
        std::memcpy(g_procOriginal, original.c_str(), original.size() + 1);
        static const bool registered = ::pthread_atfork(nullptr, nullptr, exposeForkedProcess) == 0;
        if (!registered)
            return fail("pthread_atfork");
    }
    return true;
}

std::string PrivateMounts::readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

bool PrivateMounts::writeFile(const std::string& path, const std::string& content, unsigned mode)
{
    // Inside a shadowed tree an entry may still be a symlink into the original;
    // writing through it would change the machine's file.
    std::string root = shadowRootOf(path);
    if (!root.empty()) {
        // Turn every symlinked directory between the shadow root and the file
        // into a real directory of the tmpfs.
        std::string rel = path.substr(root.size() + 1);
        std::string cur = root;
        std::size_t pos;
        while ((pos = rel.find('/')) != std::string::npos) {
            cur += "/" + rel.substr(0, pos);
            rel = rel.substr(pos + 1);
            struct stat st;
            if (::lstat(cur.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
                if (!shadow(cur))
                    return false;
                continue;
            }
            if (::mkdir(cur.c_str(), 0755) != 0 && errno != EEXIST)
                return fail("mkdir " + cur);
        }
    } else if (!makeDirs(parentOf(path))) {
        return false;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode))
        ::unlink(path.c_str());
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (!out)
            return fail("open " + path);
        out << content;
        if (!out.flush())
            return fail("write " + path);
    }
    if (::chmod(path.c_str(), mode) != 0)
        return fail("chmod " + path);
    return true;
}

bool PrivateMounts::removeEntry(const std::string& path)
{
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        return fail("unlink " + path);
    return true;
}

bool PrivateMounts::setModuleType(const std::string& type)
{
    if (!shadow("/proc"))
        return false;
    return writeFile("/proc/device-tree/stratova/moduletype", type + std::string(1, '\0'));
}

bool PrivateMounts::removeModuleType()
{
    return removeEntry("/proc/device-tree/stratova/moduletype");
}

}  // namespace testsupport
