#include "rovalis/Platform.h"

#include "util/SerialExecutor.h"
#include "util/VirtualRunLoop.h"

namespace rovalis {

std::unique_ptr<Executor> Platform::makeSerialExecutor(std::string label) const {
    return std::make_unique<SerialExecutor>(std::move(label), workTrackerOf(mainRunLoop));
}

}  // namespace rovalis
