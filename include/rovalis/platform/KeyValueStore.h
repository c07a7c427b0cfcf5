#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/Export.h"

namespace rovalis {

// A value of the key-value store. Each alternative is a stored type of its own: a date is
// not a number, and text is not bytes.
using KeyValue = std::variant<Date, std::int64_t, double, bool, std::string, std::vector<std::uint8_t>>;

// A durable, typed key-value store for the SDK's small persistent state (the user
// defaults of a mobile platform). A value written is kept across process restarts. All
// members are safe to call from any thread.
class ROVALIS_EXPORT KeyValueStore {
public:
    using Value = KeyValue;

    virtual ~KeyValueStore() = default;

    // The value under key, or none if there is none or it cannot be read.
    virtual std::optional<Value> object(const std::string& key) const = 0;
    virtual void setObject(const Value& value, const std::string& key) = 0;
    virtual void removeObject(const std::string& key) = 0;
};

}  // namespace rovalis
