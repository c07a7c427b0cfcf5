#pragma once

#include <string>

namespace rovalis {

// A run-time failure handed to a completion block or to the host: domain, code and a
// human-readable description.
struct Error {
    std::string domain;
    long code = 0;
    std::string localizedDescription;

    friend bool operator==(const Error&, const Error&) = default;
};

}  // namespace rovalis
