#include "upload/CredentialsManager.h"

#include <charconv>
#include <limits>

#include "util/Fatal.h"
#include "rovalis/Uuid.h"

namespace rovalis {

CredentialsManager::CredentialsManager(std::shared_ptr<KeychainStore> keychain, const HostInfo& host)
    : accessTokenRaw_(keychain, std::make_shared<AccessTokenKeychainItem>(keychainService(host),
                                                                          KeychainAccessibility::afterFirstUnlock)),
      userIdRaw_(keychain,
                 std::make_shared<UserIdKeychainItem>(keychainService(host), KeychainAccessibility::afterFirstUnlock)),
      deviceIdRaw_(keychain, std::make_shared<DeviceIdKeychainItem>(keychainService(host))),
      batchIdRaw_(keychain, std::make_shared<BatchIdKeychainItem>(keychainService(host))),
      sequentialIdRaw_(keychain, std::make_shared<SequentialIdKeychainItem>(keychainService(host))) {}

std::string CredentialsManager::storedOrCreated(KeychainWrapper& wrapper) {
    std::lock_guard lock(idsMutex_);
    if (auto stored = wrapper.value()) return std::move(*stored);
    return created(wrapper);
}

std::string CredentialsManager::created(KeychainWrapper& wrapper) {
    std::lock_guard lock(idsMutex_);
    std::string id = Uuid::random().uuidString();
    wrapper.setValue(id);
    return id;
}

std::string CredentialsManager::deviceId() { return storedOrCreated(deviceIdRaw_); }

std::string CredentialsManager::createDeviceId() { return created(deviceIdRaw_); }

std::string CredentialsManager::batchId() { return storedOrCreated(batchIdRaw_); }

std::string CredentialsManager::createBatchId() { return created(batchIdRaw_); }

std::int64_t CredentialsManager::sequentialId() {
    std::lock_guard lock(idsMutex_);
    return storedSequentialId();
}

std::int64_t CredentialsManager::storedSequentialId() {
    if (const auto text = sequentialIdRaw_.value(); text && !text->empty()) {
        std::int64_t value = 0;
        const char* end = text->data() + text->size();
        const auto [stop, error] = std::from_chars(text->data(), end, value);
        if (error == std::errc() && stop == end) return value;
    }
    storeSequentialId(0);
    return 0;
}

void CredentialsManager::setSequentialId(std::int64_t sequentialId) {
    std::lock_guard lock(idsMutex_);
    storeSequentialId(sequentialId);
}

void CredentialsManager::storeSequentialId(std::int64_t sequentialId) {
    sequentialIdRaw_.setValue(std::to_string(sequentialId));
}

void CredentialsManager::bumpSequentialId() {
    std::lock_guard lock(idsMutex_);
    const std::int64_t current = storedSequentialId();
    if (current == std::numeric_limits<std::int64_t>::max()) {
        fatalError("Could not bump the sequential id: " + std::to_string(current) + " + 1 overflows a 64-bit integer");
    }
    storeSequentialId(current + 1);
}

void CredentialsManager::renewBatchIdentityAfter(const BatchIdentity& sent) {
    std::lock_guard lock(idsMutex_);
    if (batchId() == sent.batchId) createBatchId();
    if (sequentialId() == sent.sequentialId) bumpSequentialId();
}

}  // namespace rovalis
