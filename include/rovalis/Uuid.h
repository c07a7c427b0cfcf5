#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "rovalis/Export.h"

namespace rovalis {

// A 128-bit UUID. Its text form is the standard 36 characters, upper case.
struct ROVALIS_EXPORT Uuid {
    std::array<std::uint8_t, 16> bytes{};

    // A random (version 4) UUID.
    static Uuid random();

    // Reads the 8-4-4-4-12 hexadecimal form, in either case. Anything else gives none.
    static std::optional<Uuid> parse(std::string_view text);

    std::string uuidString() const;

    friend bool operator==(const Uuid&, const Uuid&) = default;
};

}  // namespace rovalis
