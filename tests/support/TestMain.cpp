#include <gtest/gtest.h>

#include "util/DeviceUtil.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The SDK runs threads (executors, store queues), so death tests re-execute the
    // test binary rather than fork a process that holds them. Set here, after the
    // flags exist: a static initializer may run before gtest's own flag is constructed.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The tests run from the build tree, where nothing is installed: the resources come from
    // the source tree, after wherever an installed SDK would look.
    rovalis::RVL_DeviceUtil::setFallbackResourceDirectory(ROVALIS_SOURCE_DATA_DIR);
    return RUN_ALL_TESTS();
}
