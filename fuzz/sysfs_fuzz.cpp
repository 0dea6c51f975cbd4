// Builds a sysfs tree of FireWire nodes and network interfaces from the
// input and lets fwdevd's reader scan it. One entry per line:
//
//   n CARD NAME|guid|is_local|vendor|model|vendor_name|model_name
//                            a node directory with these files (an empty
//                            field leaves its file out) and its bus link
//   i CARD NAME|type|address an interface directory and its class link
//   l NAME TARGET            a bus link of its own, pointing anywhere
//   c NAME TARGET            a class link of its own, pointing anywhere
//   f NODE FILE CONTENT      one more file of a node, written raw
//
// The tree lives in /dev/shm, one per fuzzing process. Checks that the scan
// never throws, that a complete scan publishes only well-formed bus paths
// below reachableDevices/ with objects carrying a guid, and that its
// problems and failure text carry no raw control byte (they go to the log).

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "SysfsScan.h"
#include "SysfsTree.h"
#include "support/Check.h"

namespace fs = std::filesystem;

namespace {

const std::string& root()
{
    static const std::string path = [] {
        std::string p = "/dev/shm/tsd-fuzz-sysfs-" + std::to_string(::getpid());
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all("/dev/shm/tsd-fuzz-sysfs-" + std::to_string(::getpid()), ignored);
        });
        return p;
    }();
    return path;
}

// A name the harness may create as one directory entry: the input decides
// its bytes, the tree's layout stays the harness's.
bool safeName(std::string_view name)
{
    if (name.empty() || name.size() > 64 || name == "." || name == "..")
        return false;
    for (char ch : name)
        if (ch == '/' || ch == '\0')
            return false;
    return true;
}

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> out;
    for (;;) {
        const std::size_t at = text.find(separator);
        out.emplace_back(text.substr(0, at));
        if (at == std::string_view::npos)
            return out;
        text.remove_prefix(at + 1);
    }
}

void checkText(const std::string& text)
{
    for (char ch : text)
        FUZZ_CHECK(static_cast<unsigned char>(ch) >= 0x20 && static_cast<unsigned char>(ch) < 0x7f);
}

void build(orv::services::SysfsTree& tree, std::string_view line)
{
    const char op = line[0];
    const std::vector<std::string> words = split(line.substr(2), ' ');
    std::error_code ignored;
    if (op == 'n' && words.size() >= 2) {
        const std::vector<std::string> f = split(line.substr(2 + words[0].size() + 1), '|');
        if (!safeName(words[0]) || !safeName(f[0]))
            return;
        static const char* const files[] = {"guid", "is_local", "vendor", "model", "vendor_name", "model_name"};
        orv::services::SysfsTree::Attributes attributes;
        for (std::size_t i = 1; i < f.size() && i <= 6; ++i)
            if (!f[i].empty())
                attributes[files[i - 1]] = f[i];
        tree.addNode(words[0], f[0], attributes);
    } else if (op == 'i' && words.size() >= 2) {
        const std::vector<std::string> f = split(line.substr(2 + words[0].size() + 1), '|');
        if (!safeName(words[0]) || !safeName(f[0]) || f.size() < 3)
            return;
        tree.addInterface(words[0], f[0], f[1], f[2]);
    } else if ((op == 'l' || op == 'c') && words.size() == 2) {
        if (!safeName(words[0]) || words[1].empty() || words[1].find('\0') != std::string::npos)
            return;
        const std::string dir = root() + (op == 'l' ? "/bus/firewire/devices/" : "/class/net/");
        fs::create_symlink(words[1], dir + words[0], ignored);
    } else if (op == 'f' && words.size() >= 3) {
        // Only into a node the input made: the tree knows no other.
        if (!safeName(words[0]) || !safeName(words[1]) || tree.nodeDir(words[0]).empty())
            return;
        const std::string content(line.substr(2 + words[0].size() + 1 + words[1].size() + 1));
        tree.writeNodeFile(words[0], words[1], content);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    orv::services::SysfsTree tree(root());
    std::string_view input(reinterpret_cast<const char*>(data), size);
    while (!input.empty()) {
        const std::size_t end = input.find('\n');
        const std::string_view line = input.substr(0, end);
        input = end == std::string_view::npos ? std::string_view() : input.substr(end + 1);
        if (line.size() < 3 || line[1] != ' ')
            continue;
        try {
            build(tree, line);
        } catch (const fs::filesystem_error&) {
            // Entries that clash with earlier ones (a name used twice, a
            // file where a directory is) are left as the file system had it.
        }
    }

    const orv::services::ScanResult result = orv::services::scanReachableDevices(root());
    checkText(result.failure);
    for (const std::string& problem : result.problems)
        checkText(problem);
    if (!result.complete) {
        FUZZ_CHECK(result.devices.empty());
        FUZZ_CHECK(!result.failure.empty());
        return 0;
    }
    constexpr std::string_view prefix = "reachableDevices/";
    for (const auto& [path, value] : result.devices) {
        checkText(path);
        FUZZ_CHECK(path.compare(0, prefix.size(), prefix) == 0);
        const std::vector<std::string> parts = split(std::string_view(path).substr(prefix.size()), '/');
        FUZZ_CHECK(parts.size() == 2);
        for (const std::string& part : parts)
            FUZZ_CHECK(!part.empty() && part != "." && part != ".." && part.find(' ') == std::string::npos);
        FUZZ_CHECK(value.isObject());
        FUZZ_CHECK(value["guid"].isString());
    }
    return 0;
}
