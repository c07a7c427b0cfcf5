#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "rovalis/HostInfo.h"
#include "rovalis/platform/Keychain.h"
#include "upload/Keychain.h"

namespace rovalis {

// The narrow views of the credentials; each component receives only the one it needs.

// The host's access token.
class RVLAccessTokenModifier {
public:
    virtual ~RVLAccessTokenModifier() = default;
    virtual std::optional<std::string> accessToken() const = 0;
    // None deletes the stored token.
    virtual void setAccessToken(std::optional<std::string> accessToken) = 0;
};

class RVLDeviceIdAccessible {
public:
    virtual ~RVLDeviceIdAccessible() = default;
    // Never none: a missing device id is made and stored on the first read.
    virtual std::string deviceId() = 0;
};

// The pair a batch went out under.
struct BatchIdentity {
    std::string batchId;
    std::int64_t sequentialId = 0;

    friend bool operator==(const BatchIdentity&, const BatchIdentity&) = default;
};

// The pair that stamps each batch, renewed after each accepted upload.
class RVLBatchIdModifier {
public:
    virtual ~RVLBatchIdModifier() = default;
    virtual std::string batchId() = 0;
    virtual std::int64_t sequentialId() = 0;
    virtual std::string createBatchId() = 0;
    virtual void bumpSequentialId() = 0;
    // After the service accepted the batch sent under `sent`: a new batch id and the next
    // sequential id, each only while the stored one is still the batch's, as one step. So an
    // acceptance handled twice (a batch sent again after a restart, or accepted through both
    // sessions at once) renews once, and a restart in the middle of renewing finishes it
    // without skipping a number.
    virtual void renewBatchIdentityAfter(const BatchIdentity& sent) = 0;
};

// The five small values kept in the keychain: the access token, the user id, the device
// id, the batch id and the sequential id of batches. Every member makes its keychain calls
// on the caller's thread. The three ids are read, made and renewed under one lock: two
// threads reading a device id that is not stored yet (the sessions' threads at a launch)
// would otherwise both make one, and the second add would fail. A keychain failure stops
// the program (see KeychainItemOperations).
class CredentialsManager final : public RVLAccessTokenModifier, public RVLDeviceIdAccessible, public RVLBatchIdModifier {
public:
    // The items' service comes from the host (see keychainService).
    CredentialsManager(std::shared_ptr<KeychainStore> keychain, const HostInfo& host);

    std::optional<std::string> accessToken() const override { return accessTokenRaw_.value(); }
    void setAccessToken(std::optional<std::string> accessToken) override { accessTokenRaw_.setValue(accessToken); }

    std::optional<std::string> userId() const { return userIdRaw_.value(); }
    void setUserId(std::optional<std::string> userId) { userIdRaw_.setValue(userId); }

    // The stored device id; when none is stored a new one is made, stored and returned.
    std::string deviceId() override;
    void setDeviceId(const std::string& deviceId) { deviceIdRaw_.setValue(deviceId); }
    // Always makes, stores and returns a new device id.
    std::string createDeviceId();

    std::string batchId() override;
    void setBatchId(const std::string& batchId) { batchIdRaw_.setValue(batchId); }
    std::string createBatchId() override;

    // The stored sequential id; when none is stored, 0 is stored and returned. A stored
    // text that is not a decimal 64-bit integer (which only a damaged item can hold) is
    // treated like a missing one: 0 is stored over it. Stopping the program instead would
    // stop it again on every later upload, while counting from 0 again only looks to the
    // server like a fresh install.
    std::int64_t sequentialId() override;
    void setSequentialId(std::int64_t sequentialId);
    // Stores the sequential id plus one; stops the program if that leaves the 64-bit range.
    void bumpSequentialId() override;
    void renewBatchIdentityAfter(const BatchIdentity& sent) override;

private:
    // The stored id of the wrapper, or a new one stored there.
    std::string storedOrCreated(KeychainWrapper& wrapper);
    std::string created(KeychainWrapper& wrapper);
    std::int64_t storedSequentialId();
    void storeSequentialId(std::int64_t sequentialId);

    std::recursive_mutex idsMutex_;

    KeychainWrapper accessTokenRaw_;
    KeychainWrapper userIdRaw_;
    KeychainWrapper deviceIdRaw_;
    KeychainWrapper batchIdRaw_;
    KeychainWrapper sequentialIdRaw_;
};

}  // namespace rovalis
