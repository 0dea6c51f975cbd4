#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vela {

// The line format shared by the broker's files (access policy and quotas):
// one entry per line, words separated by blanks or tabs, '#' starts a comment
// that runs to the end of the line, blank lines are skipped. Control bytes
// other than tab are refused, so that nothing in these files can garble the
// log lines that quote them.

// Largest file the broker reads (bytes); a bigger one is refused rather than
// read into memory.
constexpr std::size_t kMaxConfigFileSize = 1024 * 1024;

struct ConfigLine
{
    int number = 0;  // 1-based line number, for messages
    std::vector<std::string> words;
};

// Splits text into its non-empty lines. False with "line N: reason" in error.
bool splitConfigLines(std::string_view text, std::vector<ConfigLine>& out, std::string& error);

// Reads the file at path into text. 0, -ENOENT for a missing file, -EFBIG
// for one above kMaxConfigFileSize, or another negative errno.
int readConfigFile(const std::string& path, std::string& text);

// Reads the file at path and hands its text to parse. A missing file is no
// error when mayBeMissing (parse is then not called, and whatever the caller
// set up before stays). False with the file's name and the reason in error.
bool loadConfigFile(const std::string& path, bool mayBeMissing,
                    const std::function<bool(std::string_view text, std::string& error)>& parse,
                    std::string& error);

}  // namespace vela
