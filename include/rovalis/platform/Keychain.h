#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "rovalis/Export.h"

namespace rovalis {

// The kind of a keychain item. The SDK keeps only generic passwords.
enum class KeychainItemClass { genericPassword };

// When an item may be read, and whether it may leave the device in a backup. It is stored
// with the item.
enum class KeychainAccessibility {
    afterFirstUnlock,
    // Never restored onto another device.
    afterFirstUnlockThisDeviceOnly,
};

// Names one item: its class, its service and its account.
struct KeychainQuery {
    KeychainItemClass itemClass = KeychainItemClass::genericPassword;
    std::string service;
    std::string account;
};

// The result of a keychain call: kKeychainSuccess, one of the keychain's own statuses
// below, or an errno value (always positive) from the storage underneath.
using KeychainStatus = int;

inline constexpr KeychainStatus kKeychainSuccess = 0;
inline constexpr KeychainStatus kKeychainItemNotFound = -1;
inline constexpr KeychainStatus kKeychainDuplicateItem = -2;

struct KeychainLookup {
    KeychainStatus status = kKeychainItemNotFound;
    // The item's value, when it was asked for and the lookup succeeded.
    std::optional<std::vector<std::uint8_t>> data;
};

// A secure store of small items, each keyed by service and account. The members mirror the
// system keychain's calls: they report a status and never stop the program, so the caller
// decides what a failure means. All members are safe to call from any thread.
class ROVALIS_EXPORT KeychainStore {
public:
    using Bytes = std::vector<std::uint8_t>;

    virtual ~KeychainStore() = default;

    // Looks the item up; with returnData its value comes back on success.
    virtual KeychainLookup copyMatching(const KeychainQuery& query, bool returnData) = 0;
    // Stores a new item; kKeychainDuplicateItem if it already exists.
    virtual KeychainStatus add(const KeychainQuery& query, KeychainAccessibility accessibility, const Bytes& data) = 0;
    // Replaces an existing item's value and accessibility; kKeychainItemNotFound if there is
    // none.
    virtual KeychainStatus update(const KeychainQuery& query, const Bytes& data, KeychainAccessibility accessibility) = 0;
    // Deletes the item; kKeychainItemNotFound if there is none.
    virtual KeychainStatus remove(const KeychainQuery& query) = 0;

    // The system's text for a status, as shown in fatal messages: the C library's text for
    // an errno value.
    virtual std::string statusMessage(KeychainStatus status) const {
        switch (status) {
            case kKeychainSuccess: return "No error.";
            case kKeychainItemNotFound: return "The specified item could not be found in the keychain.";
            case kKeychainDuplicateItem: return "The specified item already exists in the keychain.";
            default: break;
        }
        if (status > 0) return std::generic_category().message(status);
        return "Unknown keychain status " + std::to_string(status) + ".";
    }
};

}  // namespace rovalis
