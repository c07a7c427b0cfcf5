#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rovalis/HostInfo.h"
#include "rovalis/platform/Keychain.h"

namespace rovalis {

// The service of every item: the host's bundle identifier, or "rovalis" for a host without
// one (such as a test runner). An empty identifier counts as none.
std::string keychainService(const HostInfo& host);

// True when the bytes are well-formed UTF-8: no stray continuation bytes, no overlong
// forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::string_view bytes);

// One keychain item the SDK keeps.
class KeychainItem {
public:
    virtual ~KeychainItem() = default;
    // The item's account.
    virtual std::string key() const = 0;
    virtual std::string service() const = 0;
    virtual KeychainAccessibility accessibility() const = 0;
    virtual KeychainItemClass itemClass() const = 0;
};

// A generic-password item with a fixed key.
class GenericPasswordKeychainItem : public KeychainItem {
public:
    std::string key() const override { return key_; }
    std::string service() const override { return service_; }
    KeychainAccessibility accessibility() const override { return accessibility_; }
    KeychainItemClass itemClass() const override { return KeychainItemClass::genericPassword; }

protected:
    GenericPasswordKeychainItem(std::string key, std::string service, KeychainAccessibility accessibility)
        : key_(std::move(key)), service_(std::move(service)), accessibility_(accessibility) {}

private:
    std::string key_;
    std::string service_;
    KeychainAccessibility accessibility_;
};

// The token and the user id may move to another device with a backup; the ids of the
// device and its batches never do.

class AccessTokenKeychainItem final : public GenericPasswordKeychainItem {
public:
    AccessTokenKeychainItem(std::string service, KeychainAccessibility accessibility)
        : GenericPasswordKeychainItem("kRVLUserTokenKey2", std::move(service), accessibility) {}
};

class UserIdKeychainItem final : public GenericPasswordKeychainItem {
public:
    UserIdKeychainItem(std::string service, KeychainAccessibility accessibility)
        : GenericPasswordKeychainItem("kRVLUserIDKey", std::move(service), accessibility) {}
};

class DeviceIdKeychainItem final : public GenericPasswordKeychainItem {
public:
    explicit DeviceIdKeychainItem(std::string service)
        : GenericPasswordKeychainItem("kRVLDeviceIDKey2", std::move(service),
                                      KeychainAccessibility::afterFirstUnlockThisDeviceOnly) {}
};

class BatchIdKeychainItem final : public GenericPasswordKeychainItem {
public:
    explicit BatchIdKeychainItem(std::string service)
        : GenericPasswordKeychainItem("kRVLBatchIdKey", std::move(service),
                                      KeychainAccessibility::afterFirstUnlockThisDeviceOnly) {}
};

class SequentialIdKeychainItem final : public GenericPasswordKeychainItem {
public:
    explicit SequentialIdKeychainItem(std::string service)
        : GenericPasswordKeychainItem("kRVLSequentialIdKey", std::move(service),
                                      KeychainAccessibility::afterFirstUnlockThisDeviceOnly) {}
};

// The operations on one item. A keychain failure in add, update or delete, and a lookup
// that succeeds without data, are programming errors: they stop the program with the key
// and the system's text for the status.
class KeychainOperationable {
public:
    using Bytes = std::vector<std::uint8_t>;

    virtual ~KeychainOperationable() = default;
    // True when a lookup succeeds; a refused lookup counts as absent.
    virtual bool exists() const = 0;
    // The value, or none when the lookup does not succeed.
    virtual std::optional<Bytes> retrieve() const = 0;
    virtual void add(const Bytes& data) const = 0;
    virtual void update(const Bytes& data) const = 0;
    // Deletes the item ("delete" itself is a C++ keyword).
    virtual void deleteItem() const = 0;
};

// The operations on one item of a keychain store.
class KeychainItemOperations final : public KeychainOperationable {
public:
    KeychainItemOperations(std::shared_ptr<KeychainStore> store, std::shared_ptr<const KeychainItem> item);

    bool exists() const override;
    std::optional<Bytes> retrieve() const override;
    void add(const Bytes& data) const override;
    void update(const Bytes& data) const override;
    void deleteItem() const override;

private:
    KeychainQuery query() const;
    [[noreturn]] void fail(std::string_view action, std::string_view preposition, KeychainStatus status) const;

    std::shared_ptr<KeychainStore> store_;
    std::shared_ptr<const KeychainItem> item_;
};

// One text value kept in one keychain item, stored as its UTF-8 bytes. Nothing is cached:
// every read goes to the keychain.
class KeychainWrapper {
public:
    KeychainWrapper(std::shared_ptr<KeychainStore> store, std::shared_ptr<const KeychainItem> item,
                    std::optional<std::vector<std::uint8_t>> defaultValue = std::nullopt);

    // The stored text, or the default's when the item is absent. Stored bytes that are not
    // UTF-8 stop the program.
    std::optional<std::string> value() const;
    // Stores the text (update when the item exists, else add); none deletes the item when it
    // exists. A text that is not UTF-8 stops the program.
    void setValue(const std::optional<std::string>& value);

    const KeychainItem& item() const { return *item_; }
    const std::optional<std::vector<std::uint8_t>>& defaultValue() const { return defaultValue_; }

private:
    std::optional<std::string> decode(const std::vector<std::uint8_t>& data) const;

    std::shared_ptr<const KeychainItem> item_;
    std::optional<std::vector<std::uint8_t>> defaultValue_;
    KeychainItemOperations operations_;
};

}  // namespace rovalis
