// The C interface over the C++ one: handles, status codes and the callback bridge. The
// simulated device's functions are in platform/sim/capi/SimulationCApi.cpp, in the simulator library.

#include <cstring>
#include <fstream>
#include <new>
#include <type_traits>

#include "capi/CApiHandles.h"
#include "core/RVLGeneralLocationManager.h"
#include "rovalis/Console.h"
#include "rovalis/Exceptions.h"
#include "rovalis/NotificationCenter.h"
#include "util/DataRoot.h"

namespace rovalis::capi {

namespace {

thread_local int callbackDepth = 0;

// A C caller may pass any int for an enum, and a value outside the C++ enum's range must not
// be read as the enum: it is read as its bytes.
template <typename Enum>
long long integerOf(const Enum& value) {
    std::underlying_type_t<Enum> raw;
    std::memcpy(&raw, &value, sizeof raw);
    return raw;
}

// The status and message of the exception being handled.
std::pair<rovalis_status, std::string> currentFailure() noexcept {
    try {
        throw;
    } catch (const Failure& failure) {
        return {failure.status, failure.what()};
    } catch (const InternalInconsistencyException& exception) {
        return {ROVALIS_NOT_INITIALIZED, exception.what()};
    } catch (const std::bad_alloc&) {
        return {ROVALIS_OUT_OF_MEMORY, "out of memory"};
    } catch (const std::exception& exception) {
        return {ROVALIS_INTERNAL, exception.what()};
    } catch (...) {
        return {ROVALIS_INTERNAL, "an unknown failure"};
    }
}

rovalis_status configGuarded(rovalis_config* config, const std::function<void()>& work) noexcept {
    if (config == nullptr) return ROVALIS_INVALID_ARGUMENT;
    try {
        config->lastError.clear();
        work();
        return ROVALIS_OK;
    } catch (...) {
        auto [status, message] = currentFailure();
        try {
            config->lastError = std::move(message);
        } catch (...) {
        }
        return status;
    }
}

std::string requiredText(const char* text, const char* name) {
    requireArgument(text, name);
    return text;
}

// A bearer token as the collection service takes it: header.payload.signature in visible
// ASCII, with a header and a payload. The SDK itself would send any text, blanking what
// cannot go into a header line, and the service would refuse every upload.
void requireWellFormedToken(const std::string& token) {
    for (std::size_t i = 0; i < token.size(); ++i) {
        const auto byte = static_cast<unsigned char>(token[i]);
        if (byte <= 0x20 || byte >= 0x7F) {
            throw Failure(ROVALIS_INVALID_ARGUMENT, "the token holds a space, a control character or a character "
                                                    "outside ASCII at byte " + std::to_string(i));
        }
    }
    const std::size_t first = token.find('.');
    const std::size_t second = first == std::string::npos ? first : token.find('.', first + 1);
    if (second == std::string::npos || token.find('.', second + 1) != std::string::npos) {
        throw Failure(ROVALIS_INVALID_ARGUMENT, "the token must have three dot-separated parts "
                                                "(header.payload.signature)");
    }
    if (first == 0 || second == first + 1) {
        throw Failure(ROVALIS_INVALID_ARGUMENT, "the token has an empty header or payload part");
    }
}

// The Linux platform: the SDK's own threads do its work, and a caller only waits.
class LinuxEnvironment final : public SdkEnvironment {
public:
    std::optional<Platform> launchProcess() override { return std::nullopt; }
    bool waitFor(std::future<void>& done) override {
        done.wait();
        return true;
    }
};

}  // namespace

bool insideCallback() { return callbackDepth > 0; }

CallbackScope::CallbackScope() { ++callbackDepth; }
CallbackScope::~CallbackScope() { --callbackDepth; }

template <typename Function, typename... Arguments>
void CallbackBridge::invoke(Slot<Function> CallbackBridge::*slot, Arguments... arguments) {
    Slot<Function> current;
    {
        std::lock_guard lock(mutex_);
        current = this->*slot;
        if (current.function == nullptr) return;
        ++running_;
    }
    {
        CallbackScope scope;
        current.function(current.userData, arguments...);
    }
    {
        std::lock_guard lock(mutex_);
        --running_;
    }
    idle_.notify_all();
}

void CallbackBridge::trackingStatusChanged(bool isTracking) { invoke(&CallbackBridge::trackingStatus, isTracking); }

void CallbackBridge::locationAuthorizationStatusDidChange(std::int32_t status, bool precise) {
    invoke(&CallbackBridge::authorization, status, precise);
}

void CallbackBridge::didTrackLocation(const Location& fix) {
    const rovalis_location tracked{fix.coordinate.latitude, fix.coordinate.longitude, fix.horizontalAccuracy,
                                   fix.altitude, fix.verticalAccuracy, fix.speed, fix.course,
                                   fix.timestamp.secondsSince1970};
    invoke(&CallbackBridge::location, &tracked);
}

void CallbackBridge::dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) {
    rovalis_upload_result result{from.secondsSince1970, to.secondsSince1970, !error, nullptr, 0, nullptr};
    if (error) {
        result.error_domain = error->domain.c_str();
        result.error_code = error->code;
        result.error_message = error->localizedDescription.c_str();
    }
    invoke(&CallbackBridge::upload, &result);
}

rovalis_status guarded(rovalis_sdk* sdk, const std::function<void()>& work) noexcept {
    if (sdk == nullptr) return ROVALIS_INVALID_ARGUMENT;
    std::string* message = nullptr;
    try {
        std::lock_guard lock(sdk->textMutex);
        message = &sdk->errors[std::this_thread::get_id()];
        message->clear();
    } catch (...) {
        return ROVALIS_OUT_OF_MEMORY;
    }
    try {
        work();
        return ROVALIS_OK;
    } catch (...) {
        auto [status, text] = currentFailure();
        // Only this thread writes its own entry, and entries stay until the handle goes.
        try {
            *message = std::move(text);
        } catch (...) {
        }
        return status;
    }
}

void requireArgument(const void* pointer, const char* name) {
    if (pointer == nullptr) throw Failure(ROVALIS_INVALID_ARGUMENT, std::string(name) + " is NULL");
}

void requireInitialized(const rovalis_sdk& sdk) {
    if (!sdk.initialized) throw InternalInconsistencyException(RVLGeneralLocationManager::notInitializedReason);
}

void makeInstance(rovalis_sdk& sdk) {
    RovalisConfiguration configuration = sdk.configuration;
    configuration.platform = sdk.environment->launchProcess();
    sdk.notificationCenter = configuration.platform ? configuration.platform->notificationCenter
                                                    : NotificationCenter::defaultCenter();
    sdk.instance = RovalisCore::makeInstance(std::move(configuration));
}

void initializeInstance(rovalis_sdk& sdk) {
    sdk.instance->initializeUsing(sdk.callbacks, std::nullopt);
    sdk.environment->launched();
}

}  // namespace rovalis::capi

using namespace rovalis;
using rovalis::capi::Failure;
using rovalis::capi::guarded;
using rovalis::capi::requireArgument;
using rovalis::capi::requireInitialized;

extern "C" {

const char* rovalis_status_name(rovalis_status status) {
    switch (capi::integerOf(status)) {
        case ROVALIS_OK: return "ROVALIS_OK";
        case ROVALIS_INVALID_ARGUMENT: return "ROVALIS_INVALID_ARGUMENT";
        case ROVALIS_NOT_INITIALIZED: return "ROVALIS_NOT_INITIALIZED";
        case ROVALIS_WRONG_THREAD: return "ROVALIS_WRONG_THREAD";
        case ROVALIS_IO_ERROR: return "ROVALIS_IO_ERROR";
        case ROVALIS_TIMED_OUT: return "ROVALIS_TIMED_OUT";
        case ROVALIS_OUT_OF_MEMORY: return "ROVALIS_OUT_OF_MEMORY";
        case ROVALIS_INTERNAL: return "ROVALIS_INTERNAL";
    }
    return "unknown status";
}

// ---- Configuration

rovalis_config* rovalis_config_new(void) {
    try {
        auto config = std::make_unique<rovalis_config>();
        // Named after the program, as the shared C++ instance of a host that configures nothing.
        std::ifstream comm("/proc/self/comm");
        std::getline(comm, config->configuration.host.displayName);
        return config.release();
    } catch (...) {
        return nullptr;
    }
}

void rovalis_config_free(rovalis_config* config) { delete config; }

const char* rovalis_config_last_error(const rovalis_config* config) {
    return config == nullptr ? "no configuration (NULL)" : config->lastError.c_str();
}

rovalis_status rovalis_config_set_host(rovalis_config* config, const char* display_name, const char* version,
                                       const char* build, const char* identifier) {
    return capi::configGuarded(config, [&] {
        HostInfo& host = config->configuration.host;
        HostInfo updated{capi::requiredText(display_name, "display_name"), capi::requiredText(version, "version"),
                         capi::requiredText(build, "build"), std::nullopt, host.info};
        if (identifier != nullptr) updated.identifier = identifier;
        host = std::move(updated);
    });
}

rovalis_status rovalis_config_set_info_bool(rovalis_config* config, const char* key, bool value) {
    return capi::configGuarded(config, [&] {
        config->configuration.host.info[capi::requiredText(key, "key")] = value;
    });
}

rovalis_status rovalis_config_set_info_string(rovalis_config* config, const char* key, const char* value) {
    return capi::configGuarded(config, [&] {
        config->configuration.host.info[capi::requiredText(key, "key")] = capi::requiredText(value, "value");
    });
}

rovalis_status rovalis_config_set_data_root(rovalis_config* config, const char* path) {
    return capi::configGuarded(config, [&] {
        const std::string root = capi::requiredText(path, "path");
        if (root.empty()) throw Failure(ROVALIS_INVALID_ARGUMENT, "the data root is empty");
        config->configuration.dataRoot = root;
    });
}

rovalis_status rovalis_config_set_service_url(rovalis_config* config, const char* url) {
    return capi::configGuarded(config, [&] {
        const std::string base = capi::requiredText(url, "url");
        if (!base.starts_with("https://") && !base.starts_with("http://")) {
            throw Failure(ROVALIS_INVALID_ARGUMENT, "the service URL must start with https:// or http://");
        }
        config->configuration.productionBaseURL = base;
    });
}

rovalis_status rovalis_config_set_wifi_only(rovalis_config* config, bool wifi_only) {
    return capi::configGuarded(config, [&] { config->wifiOnly = wifi_only; });
}

rovalis_status rovalis_config_set_sleep_regions(rovalis_config* config, double center_radius, double spread_factor,
                                                int outer_region_count, const char* identifier_prefix) {
    return capi::configGuarded(config, [&] {
        SleepRegionConfiguration regions;
        regions.centerRadius = center_radius;
        regions.spreadFactor = spread_factor;
        regions.outerRegionCount = outer_region_count;
        if (identifier_prefix != nullptr) regions.identifierPrefix = identifier_prefix;
        // Refused here with a status, where the SDK would only say so on its console.
        if (!regions.isValid()) {
            throw Failure(ROVALIS_INVALID_ARGUMENT,
                          "sleep regions need a radius above 0 and below 1e7 m, a spread factor above 0 and below "
                          "100, 0 to 18 outer regions and a non-empty prefix");
        }
        config->configuration.sleepRegions = regions;
    });
}

// ---- The handle

rovalis_status rovalis_sdk_new(rovalis_config* config, rovalis_sdk** sdk) {
    if (sdk != nullptr) *sdk = nullptr;
    return capi::configGuarded(config, [&] {
        requireArgument(sdk, "sdk");
        auto made = std::make_unique<rovalis_sdk>();
        made->configuration = config->configuration;
        made->wifiOnly = config->wifiOnly;
        const auto dataRoot =
            config->configuration.dataRoot.value_or(DataRoot::defaultPath(config->configuration.host.identifier));
        made->configuration.dataRoot = dataRoot;
        made->environment = config->makeEnvironment ? config->makeEnvironment(dataRoot)
                                                    : std::make_unique<capi::LinuxEnvironment>();
        capi::makeInstance(*made);
        *sdk = made.release();
    });
}

void rovalis_sdk_free(rovalis_sdk* sdk) {
    if (sdk == nullptr) return;
    // The instance cannot end under its own call into the host.
    if (capi::insideCallback()) {
        Console::log("rovalis_sdk_free was called from a callback; the handle is not freed");
        return;
    }
    delete sdk;
}

const char* rovalis_last_error(const rovalis_sdk* sdk) {
    if (sdk == nullptr) return "no SDK handle (NULL)";
    std::lock_guard lock(sdk->textMutex);
    const auto entry = sdk->errors.find(std::this_thread::get_id());
    return entry == sdk->errors.end() ? "" : entry->second.c_str();
}

rovalis_status rovalis_initialize(rovalis_sdk* sdk) {
    return guarded(sdk, [&] {
        // A callback runs only once initialisation has begun; waiting for it here would block it.
        if (capi::insideCallback()) return;
        std::lock_guard lock(sdk->initializing);
        if (sdk->initialized) return;
        capi::initializeInstance(*sdk);
        if (sdk->wifiOnly) sdk->instance->setWifiOnlyDataTransfer(*sdk->wifiOnly);
        sdk->initialized = true;
    });
}

rovalis_status rovalis_set_user_token(rovalis_sdk* sdk, const char* token) {
    return guarded(sdk, [&] {
        if (token == nullptr) {
            sdk->instance->setUserToken(std::nullopt);
            return;
        }
        capi::requireWellFormedToken(token);
        sdk->instance->setUserToken(std::string(token));
    });
}

rovalis_status rovalis_start(rovalis_sdk* sdk) {
    return guarded(sdk, [&] { sdk->instance->start(); });
}

rovalis_status rovalis_stop(rovalis_sdk* sdk) {
    return guarded(sdk, [&] { sdk->instance->stop(); });
}

rovalis_status rovalis_is_tracking_active(rovalis_sdk* sdk, bool* active) {
    return guarded(sdk, [&] {
        requireArgument(active, "active");
        *active = sdk->instance->isTrackingActive();
    });
}

rovalis_status rovalis_wifi_only(rovalis_sdk* sdk, bool* wifi_only) {
    return guarded(sdk, [&] {
        requireArgument(wifi_only, "wifi_only");
        *wifi_only = sdk->instance->wifiOnlyDataTransfer();
    });
}

rovalis_status rovalis_set_wifi_only(rovalis_sdk* sdk, bool wifi_only) {
    return guarded(sdk, [&] { sdk->instance->setWifiOnlyDataTransfer(wifi_only); });
}

rovalis_status rovalis_has_required_permissions(rovalis_sdk* sdk, bool* granted) {
    return guarded(sdk, [&] {
        requireArgument(granted, "granted");
        *granted = sdk->instance->hasRequiredPermissions();
    });
}

rovalis_status rovalis_version(rovalis_sdk* sdk, const char** version) {
    return guarded(sdk, [&] {
        requireArgument(version, "version");
        const std::string text = sdk->instance->version().value_or("");
        // Set once: a pointer handed out earlier stays valid.
        std::lock_guard lock(sdk->textMutex);
        if (sdk->version.empty()) sdk->version = text;
        *version = sdk->version.c_str();
    });
}

rovalis_status rovalis_clear_data(rovalis_sdk* sdk) {
    return guarded(sdk, [&] {
        if (capi::insideCallback()) {
            throw Failure(ROVALIS_WRONG_THREAD, "rovalis_clear_data cannot wait inside a callback, on the main run "
                                                "loop that finishes it; use rovalis_clear_data_async");
        }
        auto cleared = std::make_shared<std::promise<void>>();
        std::future<void> done = cleared->get_future();
        sdk->instance->clearDataWithCompletionHandler([cleared] { cleared->set_value(); });
        if (!sdk->environment->waitFor(done)) {
            throw Failure(ROVALIS_INTERNAL, "the stored events were not deleted");
        }
    });
}

rovalis_status rovalis_clear_data_async(rovalis_sdk* sdk, void (*done)(void* user_data), void* user_data) {
    return guarded(sdk, [&] {
        std::function<void()> completion;
        if (done != nullptr) {
            completion = [done, user_data] {
                capi::CallbackScope scope;
                done(user_data);
            };
        }
        sdk->instance->clearDataWithCompletionHandler(std::move(completion));
    });
}

rovalis_status rovalis_post_lifecycle(rovalis_sdk* sdk, rovalis_lifecycle event) {
    return guarded(sdk, [&] {
        const char* name = nullptr;
        switch (capi::integerOf(event)) {
            case ROVALIS_WILL_TERMINATE: name = UIApplicationWillTerminateNotification; break;
            case ROVALIS_DID_ENTER_BACKGROUND: name = UIApplicationDidEnterBackgroundNotification; break;
            case ROVALIS_WILL_ENTER_FOREGROUND: name = UIApplicationWillEnterForegroundNotification; break;
            case ROVALIS_DID_RECEIVE_MEMORY_WARNING: name = UIApplicationDidReceiveMemoryWarningNotification; break;
            case ROVALIS_DID_BECOME_ACTIVE: name = UIApplicationDidBecomeActiveNotification; break;
        }
        if (name == nullptr) {
            throw Failure(ROVALIS_INVALID_ARGUMENT, "unknown lifecycle event " + std::to_string(capi::integerOf(event)));
        }
        requireInitialized(*sdk);
        sdk->notificationCenter->post(name);
    });
}

// ---- Callbacks

rovalis_status rovalis_set_tracking_status_callback(rovalis_sdk* sdk, rovalis_tracking_status_callback callback,
                                                    void* user_data) {
    return guarded(sdk, [&] { sdk->callbacks->set(&capi::CallbackBridge::trackingStatus, callback, user_data); });
}

rovalis_status rovalis_set_authorization_callback(rovalis_sdk* sdk, rovalis_authorization_callback callback,
                                                  void* user_data) {
    return guarded(sdk, [&] { sdk->callbacks->set(&capi::CallbackBridge::authorization, callback, user_data); });
}

rovalis_status rovalis_set_location_callback(rovalis_sdk* sdk, rovalis_location_callback callback, void* user_data) {
    return guarded(sdk, [&] { sdk->callbacks->set(&capi::CallbackBridge::location, callback, user_data); });
}

rovalis_status rovalis_set_upload_callback(rovalis_sdk* sdk, rovalis_upload_callback callback, void* user_data) {
    return guarded(sdk, [&] { sdk->callbacks->set(&capi::CallbackBridge::upload, callback, user_data); });
}

}  // extern "C"
