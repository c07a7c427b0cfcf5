#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rovalis/Date.h"
#include "rovalis/platform/KeyValueStore.h"

namespace rovalis {

// One value of the persisted state: the store, the key and the default. Reading gives the
// stored value, or the default when none is stored or the stored one has another type
// (nothing is written then). Nothing is cached: every read goes to the store.
template <typename T>
class UserDefaultsWrapper {
public:
    UserDefaultsWrapper(std::shared_ptr<KeyValueStore> store, std::string key, T defaultValue)
        : store_(std::move(store)), key_(std::move(key)), default_(std::move(defaultValue)) {}

    T get() const {
        const auto stored = store_->object(key_);
        if (stored) {
            if (const T* value = std::get_if<T>(&*stored)) return *value;
        }
        return default_;
    }
    void set(const T& value) { store_->setObject(value, key_); }

    const std::string& key() const { return key_; }

private:
    std::shared_ptr<KeyValueStore> store_;
    std::string key_;
    T default_;
};

// An optional value: writing none removes the key.
template <typename T>
class UserDefaultsWrapper<std::optional<T>> {
public:
    UserDefaultsWrapper(std::shared_ptr<KeyValueStore> store, std::string key)
        : store_(std::move(store)), key_(std::move(key)) {}
    UserDefaultsWrapper(std::shared_ptr<KeyValueStore> store, std::string key, T defaultValue)
        : store_(std::move(store)), key_(std::move(key)), default_(std::move(defaultValue)) {}

    std::optional<T> get() const {
        const auto stored = store_->object(key_);
        if (stored) {
            if (const T* value = std::get_if<T>(&*stored)) return *value;
        }
        return default_;
    }
    void set(const std::optional<T>& value) {
        if (value) {
            store_->setObject(*value, key_);
        } else {
            store_->removeObject(key_);
        }
    }

    const std::string& key() const { return key_; }

private:
    std::shared_ptr<KeyValueStore> store_;
    std::string key_;
    std::optional<T> default_;
};

// The narrow views of the persisted state; each component receives only the one it needs.

class RVLLastSuccessfulEventUploadDateModifier {
public:
    virtual ~RVLLastSuccessfulEventUploadDateModifier() = default;
    virtual Date lastSuccessfulEventUploadDate() const = 0;
    virtual void setLastSuccessfulEventUploadDate(Date date) = 0;
};

// Last connection type recorded by reachability tracking (mobile 0, disconnected 1,
// other 2, wifi 3).
class RVLLastConnectionTypeModifier {
public:
    virtual ~RVLLastConnectionTypeModifier() = default;
    virtual std::int64_t lastConnectionType() const = 0;
    virtual void setLastConnectionType(std::int64_t type) = 0;
};

// The application description of the last run.
class RVLAppInfoModifier {
public:
    virtual ~RVLAppInfoModifier() = default;
    virtual std::optional<std::string> appInfo() const = 0;
    virtual void setAppInfo(std::optional<std::string> appInfo) = 0;
};

// Reason code (0 to 5) of the last switch-off of tracking.
class RVLTrackingInterruptedReasonModifier {
public:
    virtual ~RVLTrackingInterruptedReasonModifier() = default;
    virtual std::int64_t storedTrackingInterruptedReason() const = 0;
    virtual void setStoredTrackingInterruptedReason(std::int64_t reason) = 0;
};

// The encoded pause record.
class RVLPauseRecordModifier {
public:
    virtual ~RVLPauseRecordModifier() = default;
    virtual std::optional<std::vector<std::uint8_t>> pauseRecord() const = 0;
    virtual void setPauseRecord(std::optional<std::vector<std::uint8_t>> record) = 0;
};

// Whether uploads are restricted to Wi-Fi.
class RVLDataTransferModeRecording {
public:
    virtual ~RVLDataTransferModeRecording() = default;
    virtual bool wifiOnlyDataTransfer() const = 0;
    virtual void setWifiOnlyDataTransfer(bool wifiOnly) = 0;
};

class RVLUserActivatedTrackingOnceModifier {
public:
    virtual ~RVLUserActivatedTrackingOnceModifier() = default;
    virtual bool userActivatedTrackingOnce() const = 0;
    virtual void setUserActivatedTrackingOnce(bool activated) = 0;
};

// The whole persisted state: every narrow view, plus the tracking status and the
// first-start flag.
class RVLUserDefaultsModifier : public RVLLastSuccessfulEventUploadDateModifier,
                                public RVLLastConnectionTypeModifier,
                                public RVLAppInfoModifier,
                                public RVLTrackingInterruptedReasonModifier,
                                public RVLPauseRecordModifier,
                                public RVLDataTransferModeRecording,
                                public RVLUserActivatedTrackingOnceModifier {
public:
    // Tracking state: 1 on, 0 off by the host, -1 off by the library.
    virtual std::int64_t storedTrackingStatus() const = 0;
    virtual void setStoredTrackingStatus(std::int64_t status) = 0;
    virtual bool isFirstStart() const = 0;
    virtual void setIsFirstStart(bool firstStart) = 0;
};

// The SDK's small persistent state, kept in the key-value store under fixed keys. The
// store is thread-safe and the manager adds no lock: concurrent writes of one value are
// last-writer-wins.
class UserDefaultsManager final : public RVLUserDefaultsModifier {
public:
    explicit UserDefaultsManager(std::shared_ptr<KeyValueStore> store);

    Date lastSuccessfulEventUploadDate() const override { return lastSuccessfulEventUploadDate_.get(); }
    void setLastSuccessfulEventUploadDate(Date date) override { lastSuccessfulEventUploadDate_.set(date); }

    std::int64_t lastConnectionType() const override { return lastConnectionType_.get(); }
    void setLastConnectionType(std::int64_t type) override { lastConnectionType_.set(type); }

    std::optional<std::string> appInfo() const override { return appInfo_.get(); }
    void setAppInfo(std::optional<std::string> appInfo) override { appInfo_.set(appInfo); }

    std::int64_t storedTrackingStatus() const override { return storedTrackingStatus_.get(); }
    void setStoredTrackingStatus(std::int64_t status) override { storedTrackingStatus_.set(status); }

    // A stored value outside 0 to 5 reads as 1, like a missing one.
    std::int64_t storedTrackingInterruptedReason() const override;
    void setStoredTrackingInterruptedReason(std::int64_t reason) override { storedTrackingInterruptedReason_.set(reason); }

    std::optional<std::vector<std::uint8_t>> pauseRecord() const override { return pauseRecord_.get(); }
    void setPauseRecord(std::optional<std::vector<std::uint8_t>> record) override { pauseRecord_.set(record); }

    // Stored as the data-transfer mode: 0 Wi-Fi only, 1 any connection (the default).
    bool wifiOnlyDataTransfer() const override { return dataTransferMode_.get() == 0; }
    void setWifiOnlyDataTransfer(bool wifiOnly) override { dataTransferMode_.set(wifiOnly ? 0 : 1); }

    bool isFirstStart() const override { return isFirstStart_.get(); }
    void setIsFirstStart(bool firstStart) override { isFirstStart_.set(firstStart); }

    bool userActivatedTrackingOnce() const override { return userActivatedTrackingOnce_.get(); }
    void setUserActivatedTrackingOnce(bool activated) override { userActivatedTrackingOnce_.set(activated); }

private:
    UserDefaultsWrapper<Date> lastSuccessfulEventUploadDate_;
    UserDefaultsWrapper<std::int64_t> lastConnectionType_;
    UserDefaultsWrapper<std::optional<std::string>> appInfo_;
    UserDefaultsWrapper<std::int64_t> storedTrackingStatus_;
    UserDefaultsWrapper<std::int64_t> storedTrackingInterruptedReason_;
    UserDefaultsWrapper<std::optional<std::vector<std::uint8_t>>> pauseRecord_;
    UserDefaultsWrapper<std::int64_t> dataTransferMode_;
    UserDefaultsWrapper<bool> isFirstStart_;
    UserDefaultsWrapper<bool> userActivatedTrackingOnce_;
};

}  // namespace rovalis
