// A C++ host: sets a token, starts tracking, hears the delegate's callbacks, stops.
//
//     host-cpp TRACE SERVICE_URL DATA_ROOT
//
// The SDK runs on the simulated device replaying TRACE, which stands in for the phone. A host
// on a Linux machine leaves configuration.platform unset and drives nothing: the SDK runs on
// its own threads until the host stops it.

#include <cstdio>
#include <exception>
#include <memory>

#include "platform/sim/SimulatedPhone.h"
#include "rovalis/Rovalis.h"

using namespace rovalis;

class Host final : public RovalisDelegate, public RovalisLocationDelegate, public RovalisDataUploadDelegate {
public:
    void trackingStatusChanged(bool isTracking) override { std::printf("tracking %s\n", isTracking ? "on" : "off"); }
    void locationAuthorizationStatusDidChange(std::int32_t status, bool precise) override {
        std::printf("authorization %d%s\n", status, precise ? ", precise" : "");
    }
    void didTrackLocation(const Location& location) override {
        if (fixes++ % 200 == 0) std::printf("fix %.5f, %.5f\n", location.coordinate.latitude, location.coordinate.longitude);
    }
    void dataUploadWithTrackedFrom(Date, Date, const std::optional<Error>& error) override {
        lastUploadSucceeded = !error;
        if (error) {
            std::printf("upload failed: %s %ld %s\n", error->domain.c_str(), error->code,
                        error->localizedDescription.c_str());
        } else {
            ++uploads;
        }
    }

    int fixes = 0, uploads = 0;
    bool lastUploadSucceeded = false;
};

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s TRACE SERVICE_URL DATA_ROOT\n", argv[0]);
        return 2;
    }
    try {
        sim::SimulatedPhone phone(argv[1], std::nullopt, 1, argv[3]);

        RovalisConfiguration configuration;
        configuration.host = {"C++ example", "1.0", "1", "com.example.cpp-host", {}};
        configuration.dataRoot = argv[3];
        configuration.productionBaseURL = argv[2];
        configuration.platform = phone.launchProcess();
        const std::shared_ptr<Rovalis> sdk = RovalisCore::makeInstance(configuration);

        const auto host = std::make_shared<Host>();  // the SDK holds it weakly
        sdk->initializeUsing(host, std::nullopt);
        phone.runUntil(phone.now());  // what the launch started ends before the next call, as on a phone
        sdk->setUserToken(
            "eyJhbGciOiJIUzI1NiIsInR5cCI6IkpXVCJ9."
            "eyJzdWIiOiIwZjhmYWQ1Yi1kOWNiLTQ2OWYtYTE2NS03MDg2NzcyODk1MGUiLCJuYW1lIjoiU2ltdWxhdGVkIn0.c2ltdWxhdGVk");
        sdk->start();
        phone.runUntil(phone.traceEnd());
        sdk->stop();
        // The last upload goes out once tracking is off.
        phone.runUntil(phone.now().addingSeconds(600));

        // Before the token is set an upload fails; the last one must have gone out.
        std::printf("%d fixes, %d uploads\n", host->fixes, host->uploads);
        return host->fixes > 0 && host->lastUploadSucceeded ? 0 : 1;
    } catch (const std::exception& error) {  // the SDK's misuse, or a trace that cannot be read
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
