#include <gtest/gtest.h>

#include <future>

#include "platform/linux/LinuxPlatform.h"
#include "support/TestSupport.h"
#include "util/VirtualRunLoop.h"
#include "util/WorkTracker.h"

namespace rovalis {
namespace {

TEST(Platform, SerialExecutorsItMakesReportTheirWorkToAVirtualMainLoopsTracker) {
    const auto tracker = std::make_shared<WorkTracker>();
    Platform platform;
    platform.mainRunLoop = std::make_shared<VirtualRunLoop>(std::make_shared<SettableDateSource>(), tracker);
    auto executor = platform.makeSerialExecutor("test.platform");
    std::promise<void> release;
    auto released = release.get_future().share();
    executor->async([released] { released.wait(); });
    EXPECT_FALSE(tracker->isIdle());
    release.set_value();
    tracker->waitUntilIdle();

    Platform untracked;
    auto plain = untracked.makeSerialExecutor("test.plain");
    EXPECT_TRUE(syncResult(*plain, [&] { return plain->isCurrent(); }));
}

TEST(LinuxPlatform, KeepsItsStateUnderTheDataRootAndRunsTheMainLoop) {
    test::TempDir temp;
    const DataRoot root(temp / "root");
    {
        const Platform platform = makeLinuxPlatform(root);
        platform.keyValueStore->setObject(std::string("kept"), "key");
        std::promise<bool> fired;
        auto timer = platform.mainRunLoop->scheduleTimer(
            0.001, false, [&] { fired.set_value(platform.mainRunLoop->isCurrent()); });
        auto result = fired.get_future();
        ASSERT_EQ(result.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_TRUE(result.get());
    }
    EXPECT_EQ(test::fileMode(root.root() / "Preferences.sqlite"), 0600u);
    EXPECT_EQ(makeLinuxPlatform(root).keyValueStore->object("key"), KeyValue(std::string("kept")));
}

}  // namespace
}  // namespace rovalis
