// How hostile text is shown in logs and refusals: control bytes, bytes
// beyond ASCII and the backslash escaped, everything else as it is.
#include <gtest/gtest.h>

#include "Printable.h"

using orv::services::printable;

TEST(Printable, TableOfTexts)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},
        {"-4 -E -H -i eth0", "-4 -E -H -i eth0"},
        {"a\nb", "a\\nb"},
        {"a\tb", "a\\tb"},
        {"back\\slash", "back\\\\slash"},
        {"\r", "\\x0d"},
        {std::string("nul\0byte", 8), "nul\\x00byte"},
        {"\x1b[2J", "\\x1b[2J"},
        {"\x7f", "\\x7f"},
        {"h\xc3\xa9st", "h\\xc3\\xa9st"},
        {"~ !\"$'`", "~ !\"$'`"},
    };
    for (const auto& [text, shown] : cases) {
        EXPECT_EQ(printable(text), shown);
    }
}

TEST(Printable, LongTextIsCut)
{
    EXPECT_EQ(printable("abcdef", 6), "abcdef");
    EXPECT_EQ(printable("abcdefg", 6), "abcdef...");
    // The limit counts input bytes: an escaped byte is never cut in half.
    EXPECT_EQ(printable("ab\x01\x02", 3), "ab\\x01...");
}
