// The helpers of TestSupport.h that report through GoogleTest; the rest serve the benchmarks
// and the crash test too, which do without it.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "support/TestSupport.h"

namespace rovalis::test {

unsigned fileMode(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

}  // namespace rovalis::test
