// The C interface as a C host uses it: status codes and messages on misuse, the last error's
// lifetime, and callbacks with their user data while the SDK replays a trace on the simulated
// device against the collection service on loopback.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "collector/CollectorServer.h"
#include "core/RVLGeneralLocationManager.h"
#include "rovalis/rovalis.h"
#include "sim/SimulationRunner.h"
#include "support/TestSupport.h"

namespace rovalis::test {
namespace {

const std::string eveningTrace = std::string(ROVALIS_SOURCE_DATA_DIR) + "/traces/brixton-evening.gpx";
const std::string notInitialized = RVLGeneralLocationManager::notInitializedReason;

struct ConfigDeleter {
    void operator()(rovalis_config* config) const { rovalis_config_free(config); }
};
struct SdkDeleter {
    void operator()(rovalis_sdk* sdk) const { rovalis_sdk_free(sdk); }
};
using ConfigHandle = std::unique_ptr<rovalis_config, ConfigDeleter>;
using SdkHandle = std::unique_ptr<rovalis_sdk, SdkDeleter>;

class CApi : public ::testing::Test {
protected:
    // A configuration on the test's own data root; on the simulated device replaying the
    // evening trace when `simulated`.
    ConfigHandle config(bool simulated, const std::string& serviceURL = "http://127.0.0.1:9/") {
        ConfigHandle made(rovalis_config_new());
        EXPECT_EQ(rovalis_config_set_host(made.get(), "C host", "1.0", "7", "com.example.chost"), ROVALIS_OK);
        EXPECT_EQ(rovalis_config_set_data_root(made.get(), (dir / "root").c_str()), ROVALIS_OK);
        EXPECT_EQ(rovalis_config_set_service_url(made.get(), serviceURL.c_str()), ROVALIS_OK);
        if (simulated) {
            EXPECT_EQ(rovalis_config_use_simulated_device(made.get(), eveningTrace.c_str(), nullptr, 3), ROVALIS_OK);
        }
        return made;
    }

    SdkHandle sdk(rovalis_config* configuration) {
        rovalis_sdk* made = nullptr;
        EXPECT_EQ(rovalis_sdk_new(configuration, &made), ROVALIS_OK) << rovalis_config_last_error(configuration);
        return SdkHandle(made);
    }

    TempDir dir;
};

TEST_F(CApi, NullHandlesAndArgumentsAreInvalidArgumentsWithAMessage) {
    EXPECT_EQ(rovalis_initialize(nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_EQ(rovalis_start(nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_EQ(rovalis_set_user_token(nullptr, "a.b.c"), ROVALIS_INVALID_ARGUMENT);
    EXPECT_EQ(rovalis_set_location_callback(nullptr, nullptr, nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_EQ(rovalis_simulation_run(nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_STRNE(rovalis_last_error(nullptr), "");
    rovalis_sdk_free(nullptr);

    EXPECT_EQ(rovalis_config_set_data_root(nullptr, "/tmp"), ROVALIS_INVALID_ARGUMENT);
    EXPECT_STRNE(rovalis_config_last_error(nullptr), "");
    rovalis_config_free(nullptr);

    ConfigHandle configuration = config(true);
    EXPECT_EQ(rovalis_sdk_new(configuration.get(), nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_STREQ(rovalis_config_last_error(configuration.get()), "sdk is NULL");
    EXPECT_EQ(rovalis_config_set_host(configuration.get(), "name", nullptr, "1", nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_STREQ(rovalis_config_last_error(configuration.get()), "version is NULL");

    SdkHandle handle = sdk(configuration.get());
    ASSERT_EQ(rovalis_initialize(handle.get()), ROVALIS_OK);
    EXPECT_EQ(rovalis_is_tracking_active(handle.get(), nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_STREQ(rovalis_last_error(handle.get()), "active is NULL");
    EXPECT_EQ(rovalis_simulation_advance(handle.get(), -1.0), ROVALIS_INVALID_ARGUMENT);
    EXPECT_EQ(rovalis_simulation_advance(handle.get(), NAN), ROVALIS_INVALID_ARGUMENT);
}

TEST_F(CApi, CallsBeforeInitializeGiveTheSdksOwnMessage) {
    for (const bool simulated : {false, true}) {
        ConfigHandle configuration = config(simulated);
        SdkHandle handle = sdk(configuration.get());
        bool flag = false;
        const char* version = nullptr;
        EXPECT_EQ(rovalis_start(handle.get()), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_last_error(handle.get()), notInitialized);
        EXPECT_EQ(rovalis_stop(handle.get()), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_set_user_token(handle.get(), sim::sampleUserToken().c_str()), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_is_tracking_active(handle.get(), &flag), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_wifi_only(handle.get(), &flag), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_version(handle.get(), &version), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_clear_data(handle.get()), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_post_lifecycle(handle.get(), ROVALIS_DID_BECOME_ACTIVE), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_last_error(handle.get()), notInitialized);
        // The simulated device's own calls, and what a Linux handle says to them.
        EXPECT_EQ(rovalis_simulation_run(handle.get()), simulated ? ROVALIS_NOT_INITIALIZED : ROVALIS_INVALID_ARGUMENT);
        // Callbacks may be set before initialisation.
        EXPECT_EQ(rovalis_set_tracking_status_callback(handle.get(), nullptr, nullptr), ROVALIS_OK);
        EXPECT_STREQ(rovalis_last_error(handle.get()), "");
    }
}

TEST_F(CApi, LastErrorBelongsToTheCallingThreadUntilItsNextCall) {
    ConfigHandle configuration = config(true);
    SdkHandle handle = sdk(configuration.get());
    ASSERT_EQ(rovalis_start(handle.get()), ROVALIS_NOT_INITIALIZED);
    const char* message = rovalis_last_error(handle.get());

    // Another thread's failure has a message of its own and leaves this one as it was.
    std::thread([&] {
        EXPECT_EQ(rovalis_set_wifi_only(handle.get(), true), ROVALIS_NOT_INITIALIZED);
        EXPECT_EQ(rovalis_simulation_advance(handle.get(), -5), ROVALIS_INVALID_ARGUMENT);
        EXPECT_STREQ(rovalis_last_error(handle.get()), "seconds must be a finite number, 0 or more");
    }).join();
    EXPECT_EQ(message, notInitialized);
    EXPECT_EQ(rovalis_last_error(handle.get()), message);

    ASSERT_EQ(rovalis_initialize(handle.get()), ROVALIS_OK);
    EXPECT_STREQ(rovalis_last_error(handle.get()), "");
}

TEST_F(CApi, RefusesMalformedTokensAndConfigurationWithTheReason) {
    ConfigHandle configuration = config(true);
    SdkHandle handle = sdk(configuration.get());
    ASSERT_EQ(rovalis_initialize(handle.get()), ROVALIS_OK);
    const std::pair<const char*, const char*> refused[] = {
        {"", "three dot-separated parts"},
        {"header.payload", "three dot-separated parts"},
        {"a.b.c.d", "three dot-separated parts"},
        {".payload.signature", "empty header or payload"},
        {"header.pay load.signature", "at byte 10"},
        {"header.payload\n.signature", "control character"},
    };
    for (const auto& [token, reason] : refused) {
        EXPECT_EQ(rovalis_set_user_token(handle.get(), token), ROVALIS_INVALID_ARGUMENT) << token;
        EXPECT_NE(std::string(rovalis_last_error(handle.get())).find(reason), std::string::npos)
            << token << ": " << rovalis_last_error(handle.get());
    }
    EXPECT_EQ(rovalis_set_user_token(handle.get(), "header.payload."), ROVALIS_OK);  // unsigned
    EXPECT_EQ(rovalis_set_user_token(handle.get(), nullptr), ROVALIS_OK);

    ConfigHandle other(rovalis_config_new());
    EXPECT_EQ(rovalis_config_set_sleep_regions(other.get(), 150, 1.2, 19, nullptr), ROVALIS_INVALID_ARGUMENT);
    EXPECT_NE(std::string(rovalis_config_last_error(other.get())).find("0 to 18 outer regions"), std::string::npos);
    EXPECT_EQ(rovalis_config_set_sleep_regions(other.get(), 200, 1.0, 8, "Ring"), ROVALIS_OK);
    EXPECT_STREQ(rovalis_config_last_error(other.get()), "");
    EXPECT_EQ(rovalis_config_set_service_url(other.get(), "ftp://example.org/"), ROVALIS_INVALID_ARGUMENT);

    // A trace that cannot be read fails the handle, with the file named on the configuration.
    const std::string missing = (dir / "missing.gpx").string();
    ASSERT_EQ(rovalis_config_use_simulated_device(other.get(), missing.c_str(), nullptr, 1), ROVALIS_OK);
    rovalis_sdk* none = reinterpret_cast<rovalis_sdk*>(&other);
    EXPECT_EQ(rovalis_sdk_new(other.get(), &none), ROVALIS_IO_ERROR);
    EXPECT_EQ(none, nullptr);
    EXPECT_NE(std::string(rovalis_config_last_error(other.get())).find("missing.gpx"), std::string::npos)
        << rovalis_config_last_error(other.get());
}

// What the callbacks heard, through their user data.
struct Heard {
    std::vector<bool> tracking;
    std::vector<rovalis_location> locations;
    // "ok" or the error, for each upload.
    std::vector<std::string> uploads;
    bool uploadTimesInOrder = true;
    rovalis_sdk* sdk = nullptr;
    rovalis_status clearInsideCallback = ROVALIS_OK;
    int cleared = 0;
};

TEST_F(CApi, ReplaysATraceTellingTheCallbacksWithTheirUserData) {
    collector::CollectorOptions options;
    options.port = 0;
    collector::CollectorServer service(options);
    service.start();
    ConfigHandle configuration = config(true, service.baseURL());
    SdkHandle handle = sdk(configuration.get());
    Heard heard;
    heard.sdk = handle.get();

    ASSERT_EQ(rovalis_set_tracking_status_callback(
                  handle.get(),
                  [](void* data, bool isTracking) {
                      auto& heard = *static_cast<Heard*>(data);
                      heard.tracking.push_back(isTracking);
                      // A blocking call would wait for the loop this callback holds.
                      heard.clearInsideCallback = rovalis_clear_data(heard.sdk);
                  },
                  &heard),
              ROVALIS_OK);
    ASSERT_EQ(rovalis_set_location_callback(
                  handle.get(),
                  [](void* data, const rovalis_location* location) {
                      static_cast<Heard*>(data)->locations.push_back(*location);
                  },
                  &heard),
              ROVALIS_OK);
    ASSERT_EQ(rovalis_set_upload_callback(
                  handle.get(),
                  [](void* data, const rovalis_upload_result* result) {
                      auto& heard = *static_cast<Heard*>(data);
                      heard.uploadTimesInOrder = heard.uploadTimesInOrder && result->from <= result->to;
                      heard.uploads.push_back(result->succeeded ? "ok"
                                                                : std::string(result->error_domain) + " " +
                                                                      std::to_string(result->error_code) + " " +
                                                                      result->error_message);
                  },
                  &heard),
              ROVALIS_OK);

    ASSERT_EQ(rovalis_initialize(handle.get()), ROVALIS_OK);
    // Initialised with tracking off, the SDK tries to upload at once, without a token.
    const std::size_t uploadsWithoutToken = heard.uploads.size();
    const std::size_t callsBeforeStart = heard.tracking.size();
    ASSERT_EQ(rovalis_set_user_token(handle.get(), sim::sampleUserToken().c_str()), ROVALIS_OK);
    ASSERT_EQ(rovalis_start(handle.get()), ROVALIS_OK);
    bool active = false;
    ASSERT_EQ(rovalis_is_tracking_active(handle.get(), &active), ROVALIS_OK);
    EXPECT_TRUE(active);
    EXPECT_EQ(heard.clearInsideCallback, ROVALIS_WRONG_THREAD);

    ASSERT_EQ(rovalis_simulation_run(handle.get()), ROVALIS_OK) << rovalis_last_error(handle.get());
    double now = 0, end = 0;
    ASSERT_EQ(rovalis_simulation_clock(handle.get(), &now, &end), ROVALIS_OK);
    EXPECT_GE(now, end);
    ASSERT_EQ(rovalis_stop(handle.get()), ROVALIS_OK);
    std::int64_t left = -1;
    ASSERT_EQ(rovalis_simulation_settle(handle.get(), 3600, &left), ROVALIS_OK) << rovalis_last_error(handle.get());
    EXPECT_EQ(left, 0);

    EXPECT_EQ(std::vector<bool>(heard.tracking.begin() + callsBeforeStart, heard.tracking.end()),
              (std::vector<bool>{true, false}));
    const std::vector<std::string> withToken(heard.uploads.begin() + uploadsWithoutToken, heard.uploads.end());
    EXPECT_FALSE(withToken.empty());
    EXPECT_EQ(withToken, std::vector<std::string>(withToken.size(), "ok"));
    EXPECT_TRUE(heard.uploadTimesInOrder);
    ASSERT_FALSE(heard.locations.empty());
    for (const auto& location : heard.locations) {
        // Brixton to Herne Hill, within the accuracy of a fix.
        EXPECT_NEAR(location.latitude, 51.458, 0.02);
        EXPECT_NEAR(location.longitude, -0.111, 0.03);
        EXPECT_GT(location.horizontal_accuracy, 0);
        EXPECT_GE(location.timestamp, end - 3700);
    }
    // Every fix the host heard of reached the service as a waypoint (the fixes of the bursts
    // around a sleep are stored as waypoints too, without a callback).
    std::set<double> deliveredLatitudes;
    for (const auto& event : service.events()) {
        if (event.type == "Waypoint") {
            deliveredLatitudes.insert(nlohmann::json::parse(event.payload).at("latitude").get<double>());
        }
    }
    std::size_t delivered = 0;
    for (const auto& location : heard.locations) delivered += deliveredLatitudes.count(location.latitude);
    EXPECT_EQ(delivered, heard.locations.size());

    // Removing a callback stops it; the asynchronous clear calls back with its user data.
    ASSERT_EQ(rovalis_set_tracking_status_callback(handle.get(), nullptr, nullptr), ROVALIS_OK);
    const std::size_t callsBeforeRestart = heard.tracking.size();
    ASSERT_EQ(rovalis_start(handle.get()), ROVALIS_OK);
    EXPECT_EQ(heard.tracking.size(), callsBeforeRestart);
    ASSERT_EQ(rovalis_clear_data_async(
                  handle.get(), [](void* data) { ++static_cast<Heard*>(data)->cleared; }, &heard),
              ROVALIS_OK);
    ASSERT_EQ(rovalis_simulation_advance(handle.get(), 1), ROVALIS_OK);
    EXPECT_EQ(heard.cleared, 1);
    service.stop();
}

TEST_F(CApi, OnLinuxTheCallbacksComeFromTheSdksMainRunLoop) {
    ConfigHandle configuration = config(false);
    SdkHandle handle = sdk(configuration.get());
    struct Calls {
        std::mutex mutex;
        std::vector<std::thread::id> threads;
    } calls;
    ASSERT_EQ(rovalis_set_tracking_status_callback(
                  handle.get(),
                  [](void* data, bool) {
                      auto& calls = *static_cast<Calls*>(data);
                      std::lock_guard lock(calls.mutex);
                      calls.threads.push_back(std::this_thread::get_id());
                  },
                  &calls),
              ROVALIS_OK);
    ASSERT_EQ(rovalis_initialize(handle.get()), ROVALIS_OK);
    ASSERT_EQ(rovalis_set_wifi_only(handle.get(), true), ROVALIS_OK);
    bool wifiOnly = false;
    ASSERT_EQ(rovalis_wifi_only(handle.get(), &wifiOnly), ROVALIS_OK);
    EXPECT_TRUE(wifiOnly);
    // Waits on the SDK's own threads.
    EXPECT_EQ(rovalis_clear_data(handle.get()), ROVALIS_OK) << rovalis_last_error(handle.get());
    EXPECT_EQ(rovalis_post_lifecycle(handle.get(), ROVALIS_DID_ENTER_BACKGROUND), ROVALIS_OK);
    // Replacing the callback waits for a call in flight; none comes after.
    ASSERT_EQ(rovalis_set_tracking_status_callback(handle.get(), nullptr, nullptr), ROVALIS_OK);
    std::lock_guard lock(calls.mutex);
    ASSERT_FALSE(calls.threads.empty());
    for (const auto& thread : calls.threads) EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(CApi, ClearDataWaitsUntilTheStoreIsEmpty) {
    ConfigHandle configuration = config(true);
    SdkHandle handle = sdk(configuration.get());
    ASSERT_EQ(rovalis_initialize(handle.get()), ROVALIS_OK);
    // No token: nothing can be uploaded, so what is recorded stays.
    ASSERT_EQ(rovalis_start(handle.get()), ROVALIS_OK);
    ASSERT_EQ(rovalis_simulation_advance(handle.get(), 300), ROVALIS_OK);
    std::int64_t left = 0;
    ASSERT_EQ(rovalis_simulation_settle(handle.get(), 0, &left), ROVALIS_TIMED_OUT);
    EXPECT_GT(left, 100);
    EXPECT_NE(std::string(rovalis_last_error(handle.get())).find("stored events were still waiting"), std::string::npos);

    ASSERT_EQ(rovalis_clear_data(handle.get()), ROVALIS_OK) << rovalis_last_error(handle.get());
    EXPECT_EQ(rovalis_simulation_settle(handle.get(), 0, &left), ROVALIS_OK);
    EXPECT_EQ(left, 0);
}

}  // namespace
}  // namespace rovalis::test
