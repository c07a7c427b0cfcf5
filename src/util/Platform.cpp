#include "rovalis/Platform.h"

#include "util/SerialExecutor.h"

namespace rovalis {

std::unique_ptr<Executor> Platform::makeSerialExecutor(std::string label) const {
    return std::make_unique<SerialExecutor>(std::move(label), workTracker);
}

}  // namespace rovalis
