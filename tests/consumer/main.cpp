// A host of the installed SDK: it makes an instance on a temporary data root, initialises it,
// asks whether it tracks, clears the data and exits 0. Run by run.sh against an installation.

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>

#include "rovalis/Exceptions.h"
#include "rovalis/Rovalis.h"

namespace {

class Host final : public rovalis::RovalisDelegate {
public:
    void trackingStatusChanged(bool /*isTracking*/) override {}
    void locationAuthorizationStatusDidChange(std::int32_t /*status*/, bool /*precise*/) override {}
};

int fail(const char* what) {
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}

int run(const std::filesystem::path& dataRoot) {
    rovalis::RovalisConfiguration configuration;
    configuration.host = {"Consumer", "1.0", "1", "com.example.consumer", {}};
    configuration.dataRoot = dataRoot;
    const auto sdk = rovalis::RovalisCore::makeInstance(configuration);

    // The exception is thrown inside the library and caught here: its type must be one.
    try {
        sdk->isTrackingActive();
        return fail("a call before initialisation did not raise");
    } catch (const rovalis::InternalInconsistencyException&) {
    }

    const auto host = std::make_shared<Host>();
    sdk->initializeUsing(host, std::nullopt);
    if (sdk->isTrackingActive()) return fail("a fresh data root is tracking");

    std::promise<void> cleared;
    sdk->clearDataWithCompletionHandler([&cleared] { cleared.set_value(); });
    if (cleared.get_future().wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
        return fail("clearing the data did not complete");
    }
    std::printf("consumer: SDK %s initialised, not tracking, data cleared\n", sdk->version().value_or("?").c_str());
    return 0;
}

}  // namespace

int main() {
    char pattern[] = "/tmp/rovalis-consumer-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return fail("no temporary data root");
    const std::filesystem::path dataRoot = pattern;
    const int status = run(dataRoot);
    std::filesystem::remove_all(dataRoot);
    return status;
}
