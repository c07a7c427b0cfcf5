#include "upload/CredentialsManager.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include "platform/linux/FileKeychain.h"
#include "platform/linux/LinuxPlatform.h"
#include "support/ForwardingStores.h"
#include "support/TestSupport.h"
#include "rovalis/Uuid.h"

namespace rovalis {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;
using test::fileMode;
using test::TempDir;

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }

// Records the items added and updated ("<service> <account> <accessibility>"), can
// refuse one kind of call with a status, and can answer lookups without their data.
class FaultyKeychain : public test::ForwardingKeychainStore {
public:
    using ForwardingKeychainStore::ForwardingKeychainStore;

    KeychainLookup copyMatching(const KeychainQuery& query, bool returnData) override {
        if (lookupStatus) return KeychainLookup{*lookupStatus, std::nullopt};
        return ForwardingKeychainStore::copyMatching(query, returnData && !dropData);
    }
    KeychainStatus add(const KeychainQuery& query, KeychainAccessibility accessibility, const Bytes& data) override {
        record(query, accessibility);
        return addStatus ? *addStatus : ForwardingKeychainStore::add(query, accessibility, data);
    }
    KeychainStatus update(const KeychainQuery& query, const Bytes& data, KeychainAccessibility accessibility) override {
        record(query, accessibility);
        return updateStatus ? *updateStatus : ForwardingKeychainStore::update(query, data, accessibility);
    }
    KeychainStatus remove(const KeychainQuery& query) override {
        return removeStatus ? *removeStatus : ForwardingKeychainStore::remove(query);
    }
    void record(const KeychainQuery& query, KeychainAccessibility accessibility) {
        const bool migrates = accessibility == KeychainAccessibility::afterFirstUnlock;
        written.push_back(query.service + " " + query.account + (migrates ? " migrates" : " stays"));
    }

    std::vector<std::string> written;
    std::optional<KeychainStatus> lookupStatus, addStatus, updateStatus, removeStatus;
    bool dropData = false;
};

class CredentialsTest : public ::testing::Test {
protected:
    CredentialsTest() { host_.identifier = "org.example.host"; }

    fs::path keychainDirectory() const { return dir_ / "Keychain"; }
    // A keychain and manager as a new process would make them.
    CredentialsManager restart() {
        keychain_ = std::make_shared<FaultyKeychain>(std::make_shared<FileKeychain>(keychainDirectory()));
        return CredentialsManager(keychain_, host_);
    }
    KeychainQuery query(const std::string& account) const {
        return KeychainQuery{KeychainItemClass::genericPassword, "org.example.host", account};
    }
    std::optional<std::string> stored(const std::string& account) const {
        const auto lookup = keychain_->copyMatching(query(account), true);
        if (!lookup.data) return std::nullopt;
        return std::string(lookup.data->begin(), lookup.data->end());
    }

    TempDir dir_;
    HostInfo host_;
    std::shared_ptr<FaultyKeychain> keychain_;
};

TEST_F(CredentialsTest, DeviceAndBatchIdsAreMadeOnceAndSurviveARestart) {
    auto credentials = restart();
    const std::string deviceId = credentials.deviceId();
    const std::string batchId = credentials.batchId();
    ASSERT_TRUE(Uuid::parse(deviceId));
    EXPECT_EQ(Uuid::parse(deviceId)->uuidString(), deviceId);
    EXPECT_NE(batchId, deviceId);
    EXPECT_EQ(stored("kRVLDeviceIDKey2"), deviceId);
    EXPECT_EQ(stored("kRVLBatchIdKey"), batchId);

    auto restarted = restart();
    EXPECT_EQ(restarted.deviceId(), deviceId);
    EXPECT_EQ(restarted.batchId(), batchId);

    const std::string newDevice = restarted.createDeviceId();
    EXPECT_NE(newDevice, deviceId);
    EXPECT_EQ(restart().deviceId(), newDevice);
    EXPECT_NE(restarted.createBatchId(), batchId);
}

TEST_F(CredentialsTest, SequentialIdStartsAtZeroCountsAndRestartsOverADamagedText) {
    auto credentials = restart();
    EXPECT_EQ(credentials.sequentialId(), 0);
    EXPECT_EQ(stored("kRVLSequentialIdKey"), "0");
    credentials.bumpSequentialId();
    EXPECT_EQ(stored("kRVLSequentialIdKey"), "1");
    credentials.setSequentialId(-5);
    credentials.bumpSequentialId();
    EXPECT_EQ(restart().sequentialId(), -4);

    for (const std::string damaged : {"12x", "", " 7", "99999999999999999999"}) {
        ASSERT_EQ(keychain_->update(query("kRVLSequentialIdKey"), bytes(damaged),
                                    KeychainAccessibility::afterFirstUnlockThisDeviceOnly),
                  kKeychainSuccess);
        EXPECT_EQ(credentials.sequentialId(), 0) << damaged;
        EXPECT_EQ(stored("kRVLSequentialIdKey"), "0");
    }
}

TEST_F(CredentialsTest, AnAcceptedBatchRenewsTheIdentityOnceEvenWhenHandledAgainOrHalfway) {
    auto credentials = restart();
    const BatchIdentity sent{credentials.batchId(), credentials.sequentialId()};
    credentials.renewBatchIdentityAfter(sent);
    const BatchIdentity next{credentials.batchId(), credentials.sequentialId()};
    EXPECT_NE(next.batchId, sent.batchId);
    EXPECT_EQ(next.sequentialId, sent.sequentialId + 1);
    credentials.renewBatchIdentityAfter(sent);  // the same acceptance again
    EXPECT_EQ((BatchIdentity{credentials.batchId(), credentials.sequentialId()}), next);

    // A restart after the new id was stored but before the number moved on.
    const BatchIdentity halfway{credentials.batchId(), credentials.sequentialId()};
    credentials.createBatchId();
    auto restarted = restart();
    restarted.renewBatchIdentityAfter(halfway);
    EXPECT_EQ(restarted.sequentialId(), halfway.sequentialId + 1);
    EXPECT_EQ(restarted.batchId(), credentials.batchId()) << "the id was renewed already";
}

TEST_F(CredentialsTest, TokenIsStoredReplacedAndDeletedByNone) {
    auto credentials = restart();
    EXPECT_EQ(credentials.accessToken(), std::nullopt);
    credentials.setAccessToken(std::nullopt);  // nothing to delete
    credentials.setAccessToken("header.payload.one");
    credentials.setAccessToken("header.payload.two");
    EXPECT_EQ(restart().accessToken(), "header.payload.two");

    credentials.setAccessToken(std::nullopt);
    EXPECT_EQ(credentials.accessToken(), std::nullopt);
    EXPECT_EQ(keychain_->copyMatching(query("kRVLUserTokenKey2"), false).status, kKeychainItemNotFound);

    credentials.setUserId("user");
    auto restarted = restart();
    EXPECT_EQ(restarted.userId(), "user");
    keychain_->lookupStatus = EACCES;  // refused, not fatal
    EXPECT_EQ(restarted.userId(), std::nullopt);
}

TEST_F(CredentialsTest, ItemsCarryTheHostServiceAndOnlyTokenAndUserMayLeaveTheDevice) {
    auto credentials = restart();
    credentials.setAccessToken("token");
    credentials.setUserId("user");
    credentials.deviceId();
    credentials.batchId();
    credentials.sequentialId();
    credentials.setAccessToken("token2");

    const std::string host = "org.example.host ";
    EXPECT_EQ(keychain_->written,
              (std::vector<std::string>{host + "kRVLUserTokenKey2 migrates", host + "kRVLUserIDKey migrates",
                                        host + "kRVLDeviceIDKey2 stays", host + "kRVLBatchIdKey stays",
                                        host + "kRVLSequentialIdKey stays", host + "kRVLUserTokenKey2 migrates"}));

    for (const auto& identifier : {std::optional<std::string>{}, std::optional<std::string>{""}}) {
        host_.identifier = identifier;
        EXPECT_EQ(keychainService(host_), "rovalis");
    }
}

TEST(Utf8, AcceptsWellFormedTextOnly) {
    EXPECT_TRUE(isValidUtf8("plain \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"));
    for (const std::string bad : {"\x80", "\xC3", "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                                  "\xF8\x88\x80\x80\x80", "\xE2\x82"}) {
        EXPECT_FALSE(isValidUtf8(bad)) << testing::PrintToString(bad);
    }
}

// ---- Fatal keychain failures ----

using CredentialsDeathTest = CredentialsTest;

TEST_F(CredentialsDeathTest, FailedCallsStopWithTheKeyAndTheSystemText) {
    auto credentials = restart();
    keychain_->addStatus = EACCES;
    EXPECT_DEATH(credentials.deviceId(), "Fatal error: Could not add kRVLDeviceIDKey2 to Keychain\\.\nPermission denied");
    keychain_->addStatus.reset();

    credentials.setAccessToken("token");
    keychain_->updateStatus = ENOSPC;
    EXPECT_DEATH(credentials.setAccessToken("other"),
                 "Could not update kRVLUserTokenKey2 to Keychain\\.\nNo space left on device");
    keychain_->removeStatus = kKeychainItemNotFound;
    EXPECT_DEATH(credentials.setAccessToken(std::nullopt),
                 "Could not delete kRVLUserTokenKey2 from Keychain\\.\nThe specified item could not be found");

    keychain_->dropData = true;
    EXPECT_DEATH(credentials.accessToken(), "Could not retrieve kRVLUserTokenKey2 from Keychain\\.\nNo error\\.");
}

TEST_F(CredentialsDeathTest, TextThatIsNotUtf8StopsBothWays) {
    auto credentials = restart();
    ASSERT_EQ(keychain_->add(query("kRVLUserTokenKey2"), KeychainAccessibility::afterFirstUnlock, bytes("\xFF\xFE")),
              kKeychainSuccess);
    EXPECT_DEATH(credentials.accessToken(), "Fatal error: Could not encode 2 bytes to String\\.");
    EXPECT_DEATH(credentials.setUserId("bad \xC0\xAF"), "Fatal error: Could not encode a string item to Data");
}

TEST_F(CredentialsDeathTest, AnEmptyKeyAndAnOverflowingSequentialIdStop) {
    struct EmptyKeyItem : GenericPasswordKeychainItem {
        EmptyKeyItem() : GenericPasswordKeychainItem("", "rovalis", KeychainAccessibility::afterFirstUnlock) {}
    };
    auto credentials = restart();
    KeychainWrapper wrapper(keychain_, std::make_shared<EmptyKeyItem>());
    EXPECT_DEATH(wrapper.setValue("value"), "Fatal error: should not use an empty key");

    credentials.setSequentialId(std::numeric_limits<std::int64_t>::max() - 1);
    credentials.bumpSequentialId();
    EXPECT_DEATH(credentials.bumpSequentialId(), "Fatal error: Could not bump the sequential id: 9223372036854775807");
}

// ---- The file keychain ----

TEST_F(CredentialsTest, FileKeychainKeepsPrivateFilesNamedWithoutTheirValues) {
    const std::string token = "eyJhbGciOiJub25lIn0.eyJzdWIiOiJ4In0.c2ln";
    {
        auto credentials = restart();
        credentials.setAccessToken(token);
        credentials.setAccessToken(token + "2");
        credentials.deviceId();
    }
    EXPECT_EQ(fileMode(keychainDirectory()), 0700u);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(keychainDirectory())) {
        names.push_back(entry.path().filename().string());
        EXPECT_EQ(fileMode(entry.path()), 0600u);
        EXPECT_EQ(names.back().find("tmp"), std::string::npos) << "left over: " << names.back();
        EXPECT_EQ(names.back().find("eyJ"), std::string::npos);
    }
    EXPECT_EQ(names.size(), 2u);
}

TEST_F(CredentialsTest, FileKeychainReportsStatusesAndKeepsNamesInside) {
    FileKeychain keychain(keychainDirectory());
    const KeychainQuery escaping{KeychainItemClass::genericPassword, "../..", "/etc/passwd"};
    EXPECT_EQ(keychain.update(escaping, bytes("v"), KeychainAccessibility::afterFirstUnlock), kKeychainItemNotFound);
    EXPECT_EQ(keychain.remove(escaping), kKeychainItemNotFound);
    EXPECT_EQ(keychain.add(escaping, KeychainAccessibility::afterFirstUnlock, bytes("v")), kKeychainSuccess);
    EXPECT_EQ(keychain.add(escaping, KeychainAccessibility::afterFirstUnlock, bytes("w")), kKeychainDuplicateItem);
    EXPECT_EQ(keychain.copyMatching(escaping, true).data, bytes("v"));
    EXPECT_EQ(keychain.copyMatching(escaping, false).data, std::nullopt);
    // Same bytes, split differently between service and account: another item.
    const KeychainQuery shifted{KeychainItemClass::genericPassword, "../../", "etc/passwd"};
    EXPECT_EQ(keychain.copyMatching(shifted, false).status, kKeychainItemNotFound);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), fs::directory_iterator()), 1);
    EXPECT_TRUE(fs::exists(keychainDirectory() / FileKeychain::itemFileName(escaping)));

    EXPECT_EQ(keychain.remove(escaping), kKeychainSuccess);
    EXPECT_EQ(keychain.copyMatching(escaping, true).status, kKeychainItemNotFound);

    // A directory that cannot exist reports the file system's error.
    test::ConsoleCapture console;
    test::writeFile(dir_ / "file", "x");
    FileKeychain broken(dir_ / "file" / "Keychain");
    const KeychainStatus status = broken.add(escaping, KeychainAccessibility::afterFirstUnlock, bytes("v"));
    EXPECT_EQ(status, ENOTDIR);
    EXPECT_EQ(broken.statusMessage(status), "Not a directory");
}

TEST_F(CredentialsTest, FileKeychainRemovesLeftoverTemporariesAndReplacesDamagedItems) {
    const KeychainQuery item{KeychainItemClass::genericPassword, "s", "a"};
    const fs::path file = keychainDirectory() / FileKeychain::itemFileName(item);
    FileKeychain{keychainDirectory()};  // makes the directory
    test::writeFile(keychainDirectory() / (FileKeychain::itemFileName(item) + ".tmp.abc123"), "secret");
    test::writeFile(file, "not an item");
    FileKeychain keychain(keychainDirectory());
    EXPECT_EQ(std::distance(fs::directory_iterator(keychainDirectory()), fs::directory_iterator()), 1);
    EXPECT_EQ(keychain.copyMatching(item, true).status, kKeychainItemNotFound);
    EXPECT_EQ(keychain.update(item, bytes("v"), KeychainAccessibility::afterFirstUnlock), kKeychainItemNotFound);
    EXPECT_EQ(keychain.add(item, KeychainAccessibility::afterFirstUnlock, bytes("v")), kKeychainSuccess);
    EXPECT_EQ(keychain.copyMatching(item, true).data, bytes("v"));
    EXPECT_EQ(fileMode(file), 0600u);
}

TEST(LinuxPlatformKeychain, KeepsItemsInTheKeychainDirectoryOfTheRoot) {
    TempDir dir;
    const std::string deviceId = CredentialsManager(makeLinuxPlatform(DataRoot(dir.path())).keychain, {}).deviceId();
    EXPECT_EQ(CredentialsManager(std::make_shared<FileKeychain>(dir / "Keychain"), HostInfo{}).deviceId(), deviceId);
}

}  // namespace
}  // namespace rovalis
