#pragma once

#include <stdexcept>
#include <string>

#include "rovalis/Export.h"

namespace rovalis {

// Raised to the host on misuse of the public interface (for example, a call before
// initialisation). The reason text is part of the interface.
class ROVALIS_EXPORT InternalInconsistencyException : public std::logic_error {
public:
    explicit InternalInconsistencyException(const std::string& reason) : std::logic_error(reason) {}
    std::string reason() const { return what(); }
};

}  // namespace rovalis
