#pragma once

#include "rovalis/Date.h"
#include "rovalis/Export.h"

namespace rovalis {

// Gives "now". Every component that takes a time gets one injected, so that time can be
// controlled by tests and by the simulated device.
class ROVALIS_EXPORT RVLDateSource {
public:
    virtual ~RVLDateSource() = default;
    virtual Date now() const = 0;
};

// The wall clock. The only place besides the production run loop that reads it.
class ROVALIS_EXPORT SystemDateSource final : public RVLDateSource {
public:
    Date now() const override;
};

}  // namespace rovalis
