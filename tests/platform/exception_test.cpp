#include "orv/exception/exception.h"

#include <gtest/gtest.h>

TEST(exception, CarriesItsMessageAndIsAStdException)
{
    try {
        throw orv::exception::exception("no adapter named x");
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "no adapter named x");
        EXPECT_NE(dynamic_cast<const orv::exception::exception*>(&e), nullptr);
        return;
    }
    FAIL() << "not caught as std::exception";
}
