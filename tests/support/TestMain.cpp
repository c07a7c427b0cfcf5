#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // The SDK runs threads (executors, store queues), so death tests re-execute the
    // test binary rather than fork a process that holds them. Set here, after the
    // flags exist: a static initializer may run before gtest's own flag is constructed.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
