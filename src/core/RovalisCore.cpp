#include <fstream>
#include <memory>

#include "core/RVLGeneralLocationManager.h"
#include "rovalis/Rovalis.h"

namespace rovalis {

namespace {

// A host that never configured the shared instance is named after its program.
RovalisConfiguration defaultConfiguration() {
    RovalisConfiguration configuration;
    std::ifstream comm("/proc/self/comm");
    std::getline(comm, configuration.host.displayName);
    return configuration;
}

RVLGeneralLocationManager& sharedManager() {
    // Made once, under the language's once-only guard, and never destroyed: no static
    // destructor runs while the SDK's threads may still be working.
    static auto* const instance =
        new std::shared_ptr<RVLGeneralLocationManager>(std::make_shared<RVLGeneralLocationManager>(defaultConfiguration()));
    return **instance;
}

}  // namespace

Rovalis& RovalisCore::sharedInstance() { return sharedManager(); }

void RovalisCore::configureSharedInstance(RovalisConfiguration configuration) {
    sharedManager().configure(std::move(configuration));
}

std::shared_ptr<Rovalis> RovalisCore::makeInstance(RovalisConfiguration configuration) {
    return std::make_shared<RVLGeneralLocationManager>(std::move(configuration));
}

}  // namespace rovalis
