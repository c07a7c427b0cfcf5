#pragma once

// A forwarding base for fault doubles of the keychain: it passes every call on to a real store,
// so a double overrides only the member it wants to disturb.

#include <memory>
#include <utility>

#include "rovalis/platform/Keychain.h"

namespace rovalis::test {

// Passes every call on to another store; a test double overrides only the member it wants
// to disturb (an add that is refused, a lookup that fails).
class ForwardingKeychainStore : public KeychainStore {
public:
    explicit ForwardingKeychainStore(std::shared_ptr<KeychainStore> target) : target_(std::move(target)) {}

    KeychainLookup copyMatching(const KeychainQuery& query, bool returnData) override {
        return target_->copyMatching(query, returnData);
    }
    KeychainStatus add(const KeychainQuery& query, KeychainAccessibility accessibility, const Bytes& data) override {
        return target_->add(query, accessibility, data);
    }
    KeychainStatus update(const KeychainQuery& query, const Bytes& data, KeychainAccessibility accessibility) override {
        return target_->update(query, data, accessibility);
    }
    KeychainStatus remove(const KeychainQuery& query) override { return target_->remove(query); }
    std::string statusMessage(KeychainStatus status) const override { return target_->statusMessage(status); }

protected:
    KeychainStore& target() const { return *target_; }

private:
    std::shared_ptr<KeychainStore> target_;
};

}  // namespace rovalis::test
