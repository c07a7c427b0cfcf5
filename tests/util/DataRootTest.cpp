#include <gtest/gtest.h>

#include <sys/stat.h>


#include "support/TestSupport.h"
#include "util/DataRoot.h"

namespace rovalis {
namespace {

namespace fs = std::filesystem;
using test::fileMode;
using test::ScopedEnv;

TEST(DataRoot, CreatesPrivateDirectoriesAndTightensExistingOnes) {
    test::TempDir temp;
    const fs::path existing = temp / "existing";
    fs::create_directory(existing);
    ::chmod(existing.c_str(), 0755);

    DataRoot root(existing / "nested" / "root");
    ASSERT_TRUE(root.isUsable());
    EXPECT_EQ(fileMode(existing), 0755u);  // an ancestor that was there is left alone
    EXPECT_EQ(fileMode(existing / "nested"), 0700u);
    EXPECT_EQ(fileMode(root.root()), 0700u);

    EXPECT_EQ(root.documents(), root.root() / "Documents");
    ::chmod(root.documents().c_str(), 0777);
    root.documents();
    EXPECT_EQ(fileMode(root.root() / "Documents"), 0700u);
    EXPECT_EQ(fileMode(root.privateDirectory("Keychain")), 0700u);
}

TEST(DataRoot, PrivateFilesAreCreatedOrTightenedWithoutLosingContents) {
    test::TempDir temp;
    const fs::path file = temp / "state";
    ASSERT_TRUE(ensurePrivateFile(file));
    EXPECT_EQ(fileMode(file), 0600u);

    test::writeFile(file, "kept");
    ::chmod(file.c_str(), 0644);
    ASSERT_TRUE(ensurePrivateFile(file));
    EXPECT_EQ(fileMode(file), 0600u);
    EXPECT_EQ(test::readFile(file), "kept");
}

TEST(DataRoot, AFileInThePlaceOfTheRootIsReportedNotFatal) {
    test::TempDir temp;
    test::ConsoleCapture console;
    test::writeFile(temp / "occupied", "x");
    DataRoot root(temp / "occupied");
    EXPECT_FALSE(root.isUsable());
    EXPECT_FALSE(console.lines().empty());
}

TEST(DataRoot, DefaultPathFollowsXdgThenHomeAndKeepsTheIdentifierInside) {
    {
        ScopedEnv xdg("XDG_DATA_HOME", "/data/xdg");
        EXPECT_EQ(DataRoot::defaultPath("org.example.demo"), fs::path("/data/xdg/rovalis/org.example.demo"));
        EXPECT_EQ(DataRoot::defaultPath(std::nullopt), fs::path("/data/xdg/rovalis/rovalis"));
        EXPECT_EQ(DataRoot::defaultPath("../evil"), fs::path("/data/xdg/rovalis/.._evil"));
        EXPECT_EQ(DataRoot::defaultPath(".."), fs::path("/data/xdg/rovalis/rovalis"));
    }
    ScopedEnv home("HOME", "/home/someone");
    for (const char* value : {static_cast<const char*>(nullptr), "relative/dir", ""}) {
        ScopedEnv xdg("XDG_DATA_HOME", value);
        EXPECT_EQ(DataRoot::defaultPath("app"), fs::path("/home/someone/.local/share/rovalis/app"));
    }
}

TEST(DataRootDeath, PrivateDirectoryNameMustBeOneComponent) {
    test::TempDir temp;
    DataRoot root(temp.path());
    EXPECT_DEATH(root.privateDirectory("../outside"), "Fatal error: Invalid private directory name: \\.\\./outside");
    EXPECT_DEATH(root.privateDirectory(""), "Fatal error: Invalid private directory name");
}

}  // namespace
}  // namespace rovalis
