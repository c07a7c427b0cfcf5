#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <variant>

namespace rovalis {

// A typed value of an info dictionary: the host's Info settings and the payloads of
// in-process notifications. A text literal becomes a string and an integer an int64.
using InfoValue = std::variant<bool, std::int64_t, double, std::string>;
using InfoDictionary = std::map<std::string, InfoValue>;

}  // namespace rovalis
