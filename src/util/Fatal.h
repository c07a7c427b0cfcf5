#pragma once

#include <string_view>

namespace rovalis {

// Stops the process on a programming error: writes "Fatal error: <message>" to standard
// error and aborts. Never returns.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace rovalis
