#include <gtest/gtest.h>

#include "core/UserDefaultsManager.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct UserDefaults : ::testing::Test {
    std::shared_ptr<InMemoryKeyValueStore> store = std::make_shared<InMemoryKeyValueStore>();
    UserDefaultsManager manager{store};

    void expectDefaults() const {
        EXPECT_EQ(manager.storedTrackingStatus(), 0);
        EXPECT_EQ(manager.storedTrackingInterruptedReason(), 1);
        EXPECT_FALSE(manager.wifiOnlyDataTransfer());
        EXPECT_EQ(manager.lastConnectionType(), 2);
        EXPECT_EQ(manager.lastSuccessfulEventUploadDate(), Date::distantPast());
        EXPECT_FALSE(manager.appInfo().has_value());
        EXPECT_FALSE(manager.pauseRecord().has_value());
        EXPECT_FALSE(manager.isFirstStart());
        EXPECT_FALSE(manager.userActivatedTrackingOnce());
    }
};

TEST_F(UserDefaults, AnEmptyStoreReadsAsAFreshInstallationAndStaysEmpty) {
    expectDefaults();
    for (const char* key : {"RVLLastSuccessfulEventTransmissionDate", "RVLLastConnectionType", "RVL_APP_INFO",
                            "IZSettings14", "RVL_TRACKING_INTERRUPTED_REASON", "RVL_MANAGERS_PAUSED",
                            "RVDataTransferMode", "firstStart", "User-Activated-Tracking-Once"}) {
        EXPECT_FALSE(store->object(key).has_value()) << key;  // reading writes nothing
    }
}

TEST_F(UserDefaults, EachValueIsStoredUnderItsKeyWithItsTypeAndNoneRemovesIt) {
    manager.setLastSuccessfulEventUploadDate(Date{1700000123.25});
    manager.setLastConnectionType(3);
    manager.setAppInfo("Demo 1.2 (34)Linux 6.1");
    manager.setStoredTrackingStatus(-1);
    manager.setStoredTrackingInterruptedReason(0);
    manager.setPauseRecord(Bytes{1, 2, 3});
    manager.setIsFirstStart(true);
    manager.setUserActivatedTrackingOnce(true);

    EXPECT_EQ(store->object("RVLLastSuccessfulEventTransmissionDate"), KeyValue(Date{1700000123.25}));
    EXPECT_EQ(store->object("RVLLastConnectionType"), KeyValue(std::int64_t{3}));
    EXPECT_EQ(store->object("RVL_APP_INFO"), KeyValue(std::string("Demo 1.2 (34)Linux 6.1")));
    EXPECT_EQ(store->object("IZSettings14"), KeyValue(std::int64_t{-1}));
    EXPECT_EQ(store->object("RVL_TRACKING_INTERRUPTED_REASON"), KeyValue(std::int64_t{0}));
    EXPECT_EQ(store->object("RVL_MANAGERS_PAUSED"), KeyValue(Bytes{1, 2, 3}));
    EXPECT_EQ(store->object("firstStart"), KeyValue(true));
    EXPECT_EQ(store->object("User-Activated-Tracking-Once"), KeyValue(true));

    manager.setAppInfo(std::nullopt);
    manager.setPauseRecord(std::nullopt);
    EXPECT_FALSE(store->object("RVL_APP_INFO").has_value());
    EXPECT_FALSE(store->object("RVL_MANAGERS_PAUSED").has_value());
}

TEST_F(UserDefaults, WifiOnlyIsTheTransferModeZero) {
    manager.setWifiOnlyDataTransfer(true);
    EXPECT_EQ(store->object("RVDataTransferMode"), KeyValue(std::int64_t{0}));
    EXPECT_TRUE(manager.wifiOnlyDataTransfer());
    manager.setWifiOnlyDataTransfer(false);
    EXPECT_EQ(store->object("RVDataTransferMode"), KeyValue(std::int64_t{1}));
    store->setObject(std::int64_t{7}, "RVDataTransferMode");
    EXPECT_FALSE(manager.wifiOnlyDataTransfer());
}

TEST_F(UserDefaults, ValuesOfAnotherTypeOrOutOfRangeReadAsTheDefault) {
    store->setObject(std::string("1"), "IZSettings14");
    store->setObject(std::int64_t{9}, "RVL_TRACKING_INTERRUPTED_REASON");
    store->setObject(1700000000.0, "RVLLastSuccessfulEventTransmissionDate");  // a number, not a date
    store->setObject(std::string("3"), "RVLLastConnectionType");
    store->setObject(std::int64_t{1}, "firstStart");
    store->setObject(std::int64_t{1}, "User-Activated-Tracking-Once");
    store->setObject(Bytes{'a'}, "RVL_APP_INFO");
    store->setObject(std::string("record"), "RVL_MANAGERS_PAUSED");
    store->setObject(false, "RVDataTransferMode");
    expectDefaults();

    // The reason's range is 0 to 5, both included.
    for (const auto& [stored, read] : {std::pair<std::int64_t, std::int64_t>{-1, 1}, {0, 0}, {5, 5}, {6, 1}}) {
        manager.setStoredTrackingInterruptedReason(stored);
        EXPECT_EQ(manager.storedTrackingInterruptedReason(), read) << stored;
    }
}

}  // namespace
}  // namespace rovalis
