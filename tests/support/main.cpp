// The main of the daemon's test programs: each runs in a mount namespace of
// its own, entered before GoogleTest starts any thread, so that a test can put
// configuration files, the device tree, scripts and /dev/log in place.
#include <gtest/gtest.h>

#include "testsupport/PrivateMounts.h"

int main(int argc, char** argv)
{
    if (!testsupport::PrivateMounts::enter())
        return 1;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
