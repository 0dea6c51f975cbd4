// The manual pages in man/: each renders without a single warning in every
// formatter the machine has (groff always; man-db and mandoc when present),
// each names the section of its suffix, and every program and configuration
// file the binary packages ship (debian/*.install) comes with its page in
// the same package.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "testsupport/ChildProcess.h"
#include "testsupport/PrivateMounts.h"

using testsupport::ChildProcess;
using testsupport::PrivateMounts;

namespace {

const std::string kManDir = std::string(TSD_SOURCE_DIR) + "/man";
const std::string kDebianDir = std::string(TSD_SOURCE_DIR) + "/debian";

struct Output
{
    int status = -1;
    std::string out;
    std::string err;
};

Output run(const std::vector<std::string>& argv)
{
    ChildProcess child(argv);
    child.closeStdin();
    Output result;
    result.out = child.readAll();
    result.err = child.readAllStderr();
    result.status = child.wait();
    return result;
}

std::string which(const std::string& program)
{
    for (const char* dir : {"/usr/bin", "/bin", "/usr/local/bin"}) {
        const std::string path = std::string(dir) + "/" + program;
        if (::access(path.c_str(), X_OK) == 0) {
            return path;
        }
    }
    return {};
}

// Every page below dir: NAME.[1-8].
std::vector<std::string> pagesIn(const std::string& dir)
{
    std::vector<std::string> pages;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* entry = ::readdir(d)) {
            const std::string name = entry->d_name;
            if (name.size() > 2 && name[name.size() - 2] == '.' && name.back() >= '1' && name.back() <= '8') {
                pages.push_back(name);
            }
        }
        ::closedir(d);
    }
    std::sort(pages.begin(), pages.end());
    return pages;
}

// What the formatters say about one page: empty when it renders cleanly.
std::string complaints(const std::string& page)
{
    std::string said;
    // -ww: every warning; -z: format, print nothing.
    Output groff = run({which("groff"), "-man", "-ww", "-z", page});
    if (groff.status != 0 || !groff.err.empty()) {
        said += "groff (" + std::to_string(groff.status) + "): " + groff.err;
    }
    if (!which("man").empty()) {
        Output man = run({"/usr/bin/env", "LC_ALL=C.UTF-8", "MANWIDTH=80", which("man"), "--warnings", "-l", page});
        if (man.status != 0 || !man.err.empty()) {
            said += "man (" + std::to_string(man.status) + "): " + man.err;
        }
    }
    if (!which("mandoc").empty()) {
        Output mandoc = run({which("mandoc"), "-T", "lint", "-W", "warning", page});
        if (mandoc.status != 0 || !mandoc.out.empty() || !mandoc.err.empty()) {
            said += "mandoc (" + std::to_string(mandoc.status) + "): " + mandoc.out + mandoc.err;
        }
    }
    return said;
}

}  // namespace

TEST(ManPages, EveryPageRendersWithoutWarnings)
{
    ASSERT_FALSE(which("groff").empty()) << "groff is needed to check the pages";
    const std::vector<std::string> pages = pagesIn(kManDir);
    ASSERT_FALSE(pages.empty());
    for (const std::string& page : pages) {
        SCOPED_TRACE(page);
        EXPECT_EQ(complaints(kManDir + "/" + page), "");
    }
}

TEST(ManPages, TheCheckCatchesAFaultyPage)
{
    const std::string dir = PrivateMounts::scratchDir("man-faulty");
    // An unknown macro and a font escape that names no font.
    ASSERT_TRUE(PrivateMounts::writeFile(dir + "/faulty.1",
                                         ".TH FAULTY 1 2026-11-22 x y\n.SH NAME\nfaulty \\- a page\n.XX\n\\f[nofont]x\n"));
    EXPECT_NE(complaints(dir + "/faulty.1"), "");
}

TEST(ManPages, EachPageNamesTheSectionOfItsSuffix)
{
    for (const std::string& page : pagesIn(kManDir)) {
        SCOPED_TRACE(page);
        const std::string text = PrivateMounts::readFile(kManDir + "/" + page);
        std::istringstream first(text.substr(0, text.find('\n')));
        std::string macro, title, section;
        first >> macro >> title >> section;
        EXPECT_EQ(macro, ".TH");
        EXPECT_EQ(section, std::string(1, page.back()));
    }
}

namespace {

// Package name -> the paths its debian/NAME.install lists (relative to /).
using PackageLists = std::map<std::string, std::vector<std::string>>;

PackageLists installLists(const std::string& debianDir)
{
    PackageLists lists;
    if (DIR* d = ::opendir(debianDir.c_str())) {
        while (const dirent* entry = ::readdir(d)) {
            const std::string name = entry->d_name;
            const std::string suffix = ".install";
            if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
                continue;
            }
            std::istringstream lines(PrivateMounts::readFile(debianDir + "/" + name));
            std::string line;
            std::vector<std::string>& paths = lists[name.substr(0, name.size() - suffix.size())];
            while (std::getline(lines, line)) {
                std::istringstream words(line);
                std::string path;
                if (words >> path && path[0] != '#') {
                    paths.push_back(path);
                }
            }
        }
        ::closedir(d);
    }
    return lists;
}

bool startsWith(const std::string& s, const std::string& prefix)
{
    return s.compare(0, prefix.size(), prefix) == 0;
}

// The text of a page's SYNOPSIS section with roff's escaped hyphens plain.
std::string synopsisOf(const std::string& page)
{
    const std::string text = PrivateMounts::readFile(page);
    const auto start = text.find("\n.SH SYNOPSIS\n");
    if (start == std::string::npos) {
        return {};
    }
    // Up to and with the line feed before the next section.
    std::string synopsis = text.substr(start, text.find("\n.SH ", start + 1) + 1 - start);
    for (std::string::size_type at; (at = synopsis.find("\\-")) != std::string::npos;) {
        synopsis.erase(at, 1);
    }
    return synopsis;
}

// What is shipped without its page: a program (in a bin or sbin directory)
// whose package holds no NAME.1 or NAME.8, a file under /etc whose package
// holds no section-5 page naming it in its SYNOPSIS, and a page of man/ that
// no package ships. One line each; empty when everything has its page.
std::string missingPages(const PackageLists& lists, const std::string& manDir)
{
    std::string missing;
    std::set<std::string> shipped;
    for (const auto& [package, paths] : lists) {
        std::vector<std::string> pages;
        for (const std::string& path : paths) {
            if (startsWith(path, "usr/share/man/man")) {
                const std::string page = path.substr(path.rfind('/') + 1);
                pages.push_back(page);
                shipped.insert(page);
            }
        }
        const auto ships = [&](const std::string& page) {
            return std::find(pages.begin(), pages.end(), page) != pages.end() &&
                   ::access((manDir + "/" + page).c_str(), R_OK) == 0;
        };
        for (const std::string& path : paths) {
            const std::string name = path.substr(path.rfind('/') + 1);
            if (startsWith(path, "bin/") || startsWith(path, "sbin/") || startsWith(path, "usr/bin/") ||
                startsWith(path, "usr/sbin/")) {
                if (!ships(name + ".1") && !ships(name + ".8")) {
                    missing += package + ": /" + path + " has no page " + name + ".1 or " + name + ".8\n";
                }
            } else if (startsWith(path, "etc/")) {
                const bool named = std::any_of(pages.begin(), pages.end(), [&](const std::string& page) {
                    return page.back() == '5' && ships(page) &&
                           synopsisOf(manDir + "/" + page).find("/" + path + "\n") != std::string::npos;
                });
                if (!named) {
                    missing += package + ": /" + path + " is named by no section-5 page of the package\n";
                }
            }
        }
    }
    for (const std::string& page : pagesIn(manDir)) {
        if (shipped.count(page) == 0) {
            missing += page + " is shipped by no package\n";
        }
    }
    return missing;
}

}  // namespace

TEST(ManPages, EveryShippedProgramAndConfigurationFileHasItsPage)
{
    const PackageLists lists = installLists(kDebianDir);
    ASSERT_GE(lists.size(), 7u);
    EXPECT_EQ(missingPages(lists, kManDir), "");
    // The programs an operator meets are among those checked.
    std::set<std::string> programs;
    for (const auto& entry : lists) {
        for (const std::string& path : entry.second) {
            if (path.find("bin/") != std::string::npos) {
                programs.insert(path.substr(path.rfind('/') + 1));
            }
        }
    }
    for (const char* program : {"tsd", "velad", "vela", "tsdsim", "fwdevd", "tsdparamd", "tsdctl", "tsdmon",
                                "ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"}) {
        EXPECT_EQ(programs.count(program), 1u) << program;
    }
}

TEST(ManPages, TheCoverageCheckCatchesWhatHasNoPage)
{
    PackageLists lists = installLists(kDebianDir);
    ASSERT_EQ(missingPages(lists, kManDir), "");
    lists["tsd"].push_back("usr/sbin/tsd-undocumented");
    lists["velad"].push_back("etc/vela/undocumented.conf");
    // A page that its program's package does not ship counts as missing.
    auto& vela = lists["vela"];
    vela.erase(std::remove(vela.begin(), vela.end(), "usr/share/man/man1/vela.1"), vela.end());
    EXPECT_EQ(missingPages(lists, kManDir),
              "tsd: /usr/sbin/tsd-undocumented has no page tsd-undocumented.1 or tsd-undocumented.8\n"
              "vela: /usr/bin/vela has no page vela.1 or vela.8\n"
              "velad: /etc/vela/undocumented.conf is named by no section-5 page of the package\n"
              "vela.1 is shipped by no package\n");
}
