#pragma once

#include <functional>
#include <string_view>

#include "rovalis/Export.h"

namespace rovalis {

// The SDK's console: plain lines without levels. By default they go to standard output;
// a host or a test can send them elsewhere.
class ROVALIS_EXPORT Console {
public:
    using Sink = std::function<void(std::string_view line)>;

    // Writes one line through the current sink. Safe from any thread.
    static void log(std::string_view line);

    // Replaces the sink (an empty sink restores standard output) and returns the old one.
    static Sink setSink(Sink sink);
};

}  // namespace rovalis
