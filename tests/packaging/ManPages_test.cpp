// The manual pages in man/: each renders without a single warning in every
// formatter the machine has (groff always; man-db and mandoc when present),
// each names the section of its suffix, and every program and configuration
// file the packages ship has its page.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
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

TEST(ManPages, EveryShippedProgramAndConfigurationFileHasItsPage)
{
    const std::vector<std::string> pages = pagesIn(kManDir);
    const std::set<std::string> present(pages.begin(), pages.end());
    for (const char* page :
         {"tsd.8", "tsdctl.1", "tsdsim.1", "TimeSourceDaemonConfig.xml.5", "tsd-defaults.5"}) {
        EXPECT_EQ(present.count(page), 1u) << page;
    }
}
