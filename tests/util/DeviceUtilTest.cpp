#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "util/DeviceUtil.h"

namespace rovalis {
namespace {

const std::string kUnlistedLine = "This is a device which is not listed in this category. "
                                  "Please report it, with the line below, to the maintainers of the SDK's device list.";

// Points the device list at a temporary resource directory for one test.
class DeviceListTest : public ::testing::Test {
protected:
    ~DeviceListTest() override { RVL_DeviceUtil::setResourceDirectory({}); }

    void writeList(const std::string& json, const std::string& subdirectory = "") {
        const auto directory = subdirectory.empty() ? temp_.path() : temp_.path() / subdirectory;
        std::filesystem::create_directories(directory);
        test::writeFile(directory / "DeviceList.json", json);
        RVL_DeviceUtil::setResourceDirectory(temp_.path());
    }

    // A list whose entry for this machine is `entry`.
    static std::string entryForThisMachine(const std::string& entry) {
        return "{\"" + RVL_DeviceUtil::hardwareString() + "\": " + entry + "}";
    }

    test::TempDir temp_;
};

TEST_F(DeviceListTest, ListedDeviceGivesNameSimpleNameAndNumberQuietly) {
    writeList(entryForThisMachine(R"j({"name": "Tablet Air (Wi-Fi)", "version": 11.25})j"));
    test::ConsoleCapture console;

    EXPECT_EQ(RVL_DeviceUtil::hardwareDescription(), "Tablet Air (Wi-Fi)");
    EXPECT_EQ(RVL_DeviceUtil::hardwareSimpleDescription(), "Tablet Air ");
    EXPECT_FLOAT_EQ(RVL_DeviceUtil::hardwareNumber(), 11.25f);
    EXPECT_TRUE(console.lines().empty());
}

TEST_F(DeviceListTest, UnlistedDeviceOrOneWithoutNameOrVersionFailsSoftlyWithTwoLinesPerCall) {
    const std::string hardwareLine = "Your device hardware string is: " + RVL_DeviceUtil::hardwareString();
    for (const std::string& list : {std::string(R"j({"some-other-machine": {"name": "Other", "version": 3}})j"),
                                    entryForThisMachine(R"j({"version": 0})j")}) {
        SCOPED_TRACE(list);
        writeList(list);
        test::ConsoleCapture console;
        EXPECT_EQ(RVL_DeviceUtil::hardwareDescription(), std::nullopt);
        EXPECT_EQ(RVL_DeviceUtil::hardwareSimpleDescription(), std::nullopt);
        EXPECT_FLOAT_EQ(RVL_DeviceUtil::hardwareNumber(), 200.0f);
        EXPECT_EQ(console.lines(), (std::vector<std::string>{kUnlistedLine, hardwareLine, kUnlistedLine, hardwareLine,
                                                             kUnlistedLine, hardwareLine}));
    }
}

TEST_F(DeviceListTest, MissingOrGarbageListFailsSoftly) {
    RVL_DeviceUtil::setResourceDirectory(temp_.path() / "nowhere");
    EXPECT_EQ(RVL_DeviceUtil::getDeviceList(), std::nullopt);
    EXPECT_FLOAT_EQ(RVL_DeviceUtil::hardwareNumber(), 200.0f);

    for (const char* garbage : {"{\"x86_64\": {\"name\": ", "[1, 2, 3]", "\xff\xfe"}) {
        writeList(garbage);
        EXPECT_EQ(RVL_DeviceUtil::getDeviceList(), std::nullopt) << garbage;
        EXPECT_EQ(RVL_DeviceUtil::hardwareDescription(), std::nullopt) << garbage;
    }
}

TEST_F(DeviceListTest, OwnFolderIsPreferredOverTheResourceDirectory) {
    writeList(R"j({"a": {"name": "from the resource directory", "version": 1}})j");
    writeList(R"({"a": {"name": "from its own folder", "version": 1}})", "DeviceUtil");
    EXPECT_EQ(RVL_DeviceUtil::getDeviceList()->at("a").at("name"), "from its own folder");
}

// Without an override, as an installed SDK looks: the environment, the installed data beside the
// program (which links the library statically), then the build tree's fallback; the first
// directory that holds the list is read.
class DeviceListLookup : public ::testing::Test {
protected:
    test::TempDir fromEnvironment;
    test::ScopedEnv resourceDirectory{"ROVALIS_RESOURCE_DIR", fromEnvironment.path().c_str()};
};

TEST_F(DeviceListLookup, EnvironmentThenInstalledDataThenFallback) {
    const auto program = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_EQ(RVL_DeviceUtil::resourceDirectories(),
              (std::vector<std::filesystem::path>{fromEnvironment.path(),
                                                  (program.parent_path() / ROVALIS_DATA_FROM_BINDIR).lexically_normal(),
                                                  ROVALIS_SOURCE_DATA_DIR}));
    const auto shipped = RVL_DeviceUtil::getDeviceList();
    ASSERT_TRUE(shipped.has_value());
    EXPECT_FALSE(shipped->contains("a"));
    test::writeFile(fromEnvironment / "DeviceList.json", R"({"a": {"name": "from the environment", "version": 1}})");
    EXPECT_EQ(RVL_DeviceUtil::getDeviceList()->at("a").at("name"), "from the environment");
}

TEST(DeviceUtil, SimpleDescriptionDropsSuffixesButKeepsGenerations) {
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("(Wi-Fi) (3 Gen)"), "");
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Tablet (3 Gen)"), "Tablet (3 Gen)");
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Tablet (12 gen)"), "Tablet (12 gen)");  // case-insensitive
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Tablet (2nd Gen)"), "Tablet ");
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Tablet (3Gen)"), "Tablet ");
    // Greedy: from the first removable parenthesis to the last closing one.
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Phone (GSM) Plus (CDMA)"), "Phone ");
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Phone (unclosed"), "Phone (unclosed");
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("Phone (3 Gen) (GSM)"), "Phone (3 Gen) ");
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("A (x)\nB (y)"), "A \nB ");  // one line at a time
    EXPECT_EQ(RVL_DeviceUtil::simpleDescription("A (x\ny)"), "A (x\ny)");
}

TEST(DeviceUtil, ShippedListIsWellFormedAndMachineIsKnown) {
    EXPECT_FALSE(RVL_DeviceUtil::hardwareString().empty());
    const auto list = RVL_DeviceUtil::getDeviceList();
    ASSERT_TRUE(list.has_value());
    ASSERT_FALSE(list->empty());
    for (const auto& [machine, entry] : list->items()) {
        EXPECT_TRUE(entry.at("name").is_string()) << machine;
        EXPECT_GT(entry.at("version").get<float>(), 0.0f) << machine;
    }
}

}  // namespace
}  // namespace rovalis
