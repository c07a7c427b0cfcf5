#include "util/Fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace rovalis {

void fatalError(std::string_view message) {
    std::string line = "Fatal error: ";
    line.append(message);
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace rovalis
