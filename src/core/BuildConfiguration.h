#pragma once

#include <optional>
#include <string>

namespace rovalis {

// Which build of the SDK this is. An integration build talks to a development collection
// service on the local machine and detects stays after 15 seconds instead of 10 minutes,
// so that a whole sleep and wake cycle can be watched in a short session; both are only
// its defaults, which the host's own settings replace.
class RVLBuildConfigurable {
public:
    virtual ~RVLBuildConfigurable() = default;
    virtual bool isDebug() const = 0;
    virtual bool isIntegration() const = 0;
};

class BuildConfiguration final : public RVLBuildConfigurable {
public:
    // The production configuration: neither debug nor integration.
    BuildConfiguration() = default;
    BuildConfiguration(bool debug, bool integration) : debug_(debug), integration_(integration) {}

    bool isDebug() const override { return debug_; }
    bool isIntegration() const override { return integration_; }

private:
    bool debug_ = false;
    bool integration_ = false;
};

// The development collection service of an integration build.
inline constexpr const char* kRVLDevelopmentBaseURL = "http://localhost:8080/";

// Seconds the device must stay within the stay radius before the SDK goes to sleep: the
// host's own limit, else 15 s in an integration build and 10 minutes otherwise.
inline double stayTimeLimit(const RVLBuildConfigurable& configuration, std::optional<double> hostLimit = {}) {
    if (hostLimit) return *hostLimit;
    return configuration.isIntegration() ? 15.0 : 600.0;
}

// The collection service's base URL: the host's own, else the development service in an
// integration build and the production one the host configured otherwise.
inline std::string serviceBaseURL(const RVLBuildConfigurable& configuration, const std::string& productionBaseURL,
                                  const std::optional<std::string>& hostURL = {}) {
    if (hostURL) return *hostURL;
    return configuration.isIntegration() ? kRVLDevelopmentBaseURL : productionBaseURL;
}

}  // namespace rovalis
