#pragma once

// What the C interface's handles hold, shared by its production part (CApi.cpp) and its
// simulated-device part (platform/sim/capi/SimulationCApi.cpp), which lives in the simulator library.

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "rovalis/Rovalis.h"
#include "rovalis/rovalis.h"

namespace rovalis {
class NotificationCenter;
}

namespace rovalis::capi {

// A failure with the status the caller gets; thrown inside the C functions, never out of them.
class Failure : public std::runtime_error {
public:
    Failure(rovalis_status status, const std::string& message) : std::runtime_error(message), status(status) {}
    const rovalis_status status;
};

// Where a handle's SDK runs: the Linux platform, or a simulated phone.
class SdkEnvironment {
public:
    virtual ~SdkEnvironment() = default;
    // The platform bundle of a new process of the app; none for the default Linux one.
    virtual std::optional<Platform> launchProcess() = 0;
    // After the SDK was initialised: lets what the launch started finish.
    virtual void launched() {}
    // Lets the SDK's work go on until `done` is ready; false when it never got there.
    virtual bool waitFor(std::future<void>& done) = 0;
};

// Makes the environment of a new handle from the SDK's data root; throws Failure.
using EnvironmentFactory = std::function<std::unique_ptr<SdkEnvironment>(const std::filesystem::path& dataRoot)>;

// True on a thread that is running one of the host's callbacks now.
bool insideCallback();

// Marks the calling thread as running a host callback while it lives.
class CallbackScope {
public:
    CallbackScope();
    ~CallbackScope();
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
};

// The SDK's delegate, forwarding to the host's function pointers. Every call arrives on the
// main run loop. A slot is read under the lock and called outside it; replacing a slot waits
// until no callback is running, so the host may free the old user data once it returns.
class CallbackBridge final : public RovalisDelegate, public RovalisLocationDelegate, public RovalisDataUploadDelegate {
public:
    template <typename Function>
    struct Slot {
        Function function = nullptr;
        void* userData = nullptr;
    };

    void trackingStatusChanged(bool isTracking) override;
    void locationAuthorizationStatusDidChange(std::int32_t status, bool precise) override;
    void didTrackLocation(const Location& location) override;
    void dataUploadWithTrackedFrom(Date from, Date to, const std::optional<Error>& error) override;

    template <typename Function>
    void set(Slot<Function> CallbackBridge::*slot, Function function, void* userData) {
        std::unique_lock lock(mutex_);
        this->*slot = {function, userData};
        // From inside a callback nothing else runs: the callbacks share one thread.
        if (!insideCallback()) idle_.wait(lock, [this] { return running_ == 0; });
    }

    Slot<rovalis_tracking_status_callback> trackingStatus;
    Slot<rovalis_authorization_callback> authorization;
    Slot<rovalis_location_callback> location;
    Slot<rovalis_upload_callback> upload;

private:
    template <typename Function, typename... Arguments>
    void invoke(Slot<Function> CallbackBridge::*slot, Arguments... arguments);

    std::mutex mutex_;
    std::condition_variable idle_;
    int running_ = 0;
};

}  // namespace rovalis::capi

struct rovalis_config {
    rovalis::RovalisConfiguration configuration;
    std::optional<bool> wifiOnly;
    // Set for the simulated device; the Linux platform otherwise.
    rovalis::capi::EnvironmentFactory makeEnvironment;
    std::string lastError;
};

struct rovalis_sdk {
    // Kept for the instances of later processes (a relaunch on the simulated device).
    rovalis::RovalisConfiguration configuration;
    std::optional<bool> wifiOnly;
    // Declared before the instance, so that the instance ends first.
    std::unique_ptr<rovalis::capi::SdkEnvironment> environment;
    std::shared_ptr<rovalis::capi::CallbackBridge> callbacks = std::make_shared<rovalis::capi::CallbackBridge>();
    std::shared_ptr<rovalis::Rovalis> instance;

    // The notification centre of the instance's process.
    std::shared_ptr<rovalis::NotificationCenter> notificationCenter;
    std::mutex initializing;
    std::atomic<bool> initialized{false};
    // Guards the version and the errors.
    mutable std::mutex textMutex;
    std::string version;
    // The last error of each thread that called.
    std::map<std::thread::id, std::string> errors;
};

namespace rovalis::capi {

// Runs `work` for a C function of the handle: a NULL handle is ROVALIS_INVALID_ARGUMENT, and
// whatever the work throws becomes a status with the calling thread's last error.
rovalis_status guarded(rovalis_sdk* sdk, const std::function<void()>& work) noexcept;

// Throws ROVALIS_INVALID_ARGUMENT naming the argument when it is NULL.
void requireArgument(const void* pointer, const char* name);

// Throws the SDK's own not-initialised failure unless the handle is initialised.
void requireInitialized(const rovalis_sdk& sdk);

// A new SDK instance for the handle, on a new process of its environment.
void makeInstance(rovalis_sdk& sdk);
// Initialises the handle's instance with the host's callbacks.
void initializeInstance(rovalis_sdk& sdk);

}  // namespace rovalis::capi
