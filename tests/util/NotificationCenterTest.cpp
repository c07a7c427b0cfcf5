#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "rovalis/NotificationCenter.h"

namespace rovalis {
namespace {

TEST(NotificationCenter, DeliversObjectAndUserInfoToObserversOfTheNameOnThePostingThread) {
    NotificationCenter center;
    std::vector<Notification> general;
    int sdkCalls = 0;
    std::thread::id deliveredOn;
    center.addObserver("RVLGeneralNotification", [&](const Notification& n) {
        general.push_back(n);
        deliveredOn = std::this_thread::get_id();
    });
    center.addObserver("RVLSDKNotification", [&](const Notification&) { ++sdkCalls; });

    center.post("RVLGeneralNotification", std::nullopt, InfoDictionary{{"paused", true}});
    center.post("RVLSDKNotification", InfoDictionary{{"message", "Asleep"}});

    ASSERT_EQ(general.size(), 1u);
    EXPECT_EQ(general[0].name, "RVLGeneralNotification");
    EXPECT_FALSE(general[0].object.has_value());
    EXPECT_EQ(general[0].userInfo, (InfoDictionary{{"paused", true}}));
    EXPECT_EQ(deliveredOn, std::this_thread::get_id());
    EXPECT_EQ(sdkCalls, 1);
}

TEST(NotificationCenter, ObserversMayRemoveThemselvesOrOthersAndAddDuringDelivery) {
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::ObserverToken first = 0, second = 0;
    first = center.addObserver("n", [&](const Notification&) {
        calls.push_back("first");
        center.removeObserver(first);
        center.removeObserver(second);
        center.addObserver("n", [&](const Notification&) { calls.push_back("added"); });
    });
    second = center.addObserver("n", [&](const Notification&) { calls.push_back("second"); });

    center.post("n");
    EXPECT_EQ(calls, (std::vector<std::string>{"first"}));
    center.post("n");
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "added"}));
    center.removeObserver(12345);  // unknown tokens are ignored
}

TEST(NotificationCenter, PostsFromManyThreadsReachEveryObserver) {
    NotificationCenter center;
    std::atomic<int> delivered{0};
    center.addObserver("n", [&](const Notification&) { ++delivered; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                const auto token = center.addObserver("other", [](const Notification&) {});
                center.post("n");
                center.removeObserver(token);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(delivered, 800);
}

}  // namespace
}  // namespace rovalis
