#pragma once

#include <string>

#include "rovalis/Date.h"

namespace rovalis {

// "2023-11-14 22:13:20 +0000", like the platform's description of a date (whole seconds,
// UTC). Used in console lines, debug events and reason texts.
std::string dateDebugDescription(Date date);

}  // namespace rovalis
