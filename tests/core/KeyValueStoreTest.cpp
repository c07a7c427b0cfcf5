#include <gtest/gtest.h>

#include <sqlite3.h>

#include <cmath>
#include <thread>

#include "platform/linux/SqliteKeyValueStore.h"
#include "support/TestSupport.h"
#include "util/InMemoryKeyValueStore.h"

namespace rovalis {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

void runSql(const fs::path& file, const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
    sqlite3_close(db);
}

// The typing rules hold for every store the SDK may be given.
template <typename Store>
struct KeyValueStoreContract : ::testing::Test {
    test::TempDir temp;
    std::shared_ptr<KeyValueStore> make() {
        if constexpr (std::is_same_v<Store, SqliteKeyValueStore>) {
            return std::make_shared<SqliteKeyValueStore>(temp / "Preferences.sqlite");
        } else {
            return std::make_shared<Store>();
        }
    }
};
using Stores = ::testing::Types<SqliteKeyValueStore, InMemoryKeyValueStore>;
TYPED_TEST_SUITE(KeyValueStoreContract, Stores);

TYPED_TEST(KeyValueStoreContract, KeepsEveryTypeDistinct) {
    auto store = this->make();
    const std::vector<std::pair<std::string, KeyValue>> values = {
        {"date", Date{1700000000.5}}, {"integer", std::int64_t{-9007199254740993}}, {"real", 1700000000.5},
        {"bool", true}, {"text", std::string("abc")}, {"bytes", Bytes{'a', 'b', 'c'}}, {"empty bytes", Bytes{}},
        {"empty text", std::string()}};
    for (const auto& [key, value] : values) store->setObject(value, key);
    for (const auto& [key, value] : values) EXPECT_EQ(store->object(key), value) << key;
    EXPECT_FALSE(store->object("missing").has_value());

    store->setObject(std::int64_t{1}, "bool");  // a new type replaces the old one
    EXPECT_EQ(store->object("bool"), KeyValue(std::int64_t{1}));
    store->removeObject("bool");
    store->removeObject("never there");
    EXPECT_FALSE(store->object("bool").has_value());
}

struct SqliteKeyValueStoreFile : ::testing::Test {
    test::TempDir temp;
    const fs::path file = temp / "Preferences.sqlite";
};

TEST_F(SqliteKeyValueStoreFile, ValuesSurviveReopeningAndTheFileIsPrivate) {
    {
        SqliteKeyValueStore store(file);
        EXPECT_TRUE(store.isPersistent());
        store.setObject(Date{-62135769600.0}, "past");
        store.setObject(std::nan(""), "nan");
        store.setObject(std::string("kept"), "text");
        store.setObject(std::string("gone"), "removed");
        store.removeObject("removed");
    }
    EXPECT_EQ(test::fileMode(file), 0600u);

    SqliteKeyValueStore reopened(file);
    EXPECT_EQ(reopened.object("past"), KeyValue(Date{-62135769600.0}));
    EXPECT_EQ(reopened.object("text"), KeyValue(std::string("kept")));
    EXPECT_FALSE(reopened.object("removed").has_value());
    const auto nan = reopened.object("nan");
    ASSERT_TRUE(nan && std::holds_alternative<double>(*nan));
    EXPECT_TRUE(std::isnan(std::get<double>(*nan)));
}

TEST_F(SqliteKeyValueStoreFile, AFileThatIsNotADatabaseIsSetAsideAndTheStoreStartsEmpty) {
    test::ConsoleCapture console;
    const std::string garbage(4096, 'x');
    test::writeFile(file, garbage);

    {
        SqliteKeyValueStore store(file);
        EXPECT_TRUE(store.isPersistent());
        EXPECT_FALSE(store.object("anything").has_value());
        store.setObject(std::int64_t{5}, "fresh");
    }
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("could not be read"), std::string::npos) << console.lines()[0];
    EXPECT_EQ(test::readFile(temp / "Preferences.sqlite.corrupt"), garbage);
    EXPECT_EQ(SqliteKeyValueStore(file).object("fresh"), KeyValue(std::int64_t{5}));
}

TEST_F(SqliteKeyValueStoreFile, AnUnusablePathFallsBackToMemory) {
    test::ConsoleCapture console;
    fs::create_directory(temp / "directory");
    SqliteKeyValueStore store(temp / "directory");
    EXPECT_FALSE(store.isPersistent());
    store.setObject(true, "flag");
    EXPECT_EQ(store.object("flag"), KeyValue(true));
    EXPECT_FALSE(console.lines().empty());
}

TEST_F(SqliteKeyValueStoreFile, UnknownKindsAndMismatchedValuesReadAsAbsent) {
    { SqliteKeyValueStore store(file); }
    runSql(file,
           "INSERT INTO defaults VALUES ('future', 99, 1);"
           "INSERT INTO defaults VALUES ('integer as text', 2, 'seven');"
           "INSERT INTO defaults VALUES ('bytes as text', 6, 'abc');"
           "INSERT INTO defaults VALUES ('text', 5, 'fine');");
    SqliteKeyValueStore store(file);
    for (const char* key : {"future", "integer as text", "bytes as text"}) EXPECT_FALSE(store.object(key)) << key;
    EXPECT_EQ(store.object("text"), KeyValue(std::string("fine")));
}

TEST_F(SqliteKeyValueStoreFile, ConcurrentWritersOfDifferentKeysAllLand) {
    SqliteKeyValueStore store(file);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 25; ++i) store.setObject(std::int64_t{i}, "k" + std::to_string(t));
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(store.object("k" + std::to_string(t)), KeyValue(std::int64_t{24}));
}

}  // namespace
}  // namespace rovalis
