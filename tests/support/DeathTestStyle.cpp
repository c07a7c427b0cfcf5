#include <gtest/gtest.h>

// The SDK runs threads (executors, store queues), so death tests re-execute the test
// binary rather than fork a process that holds them.
static const bool deathTestStyleSet = [] {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    return true;
}();
