#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include <cmath>
#include <fstream>
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
    store->setObject(Date{1700000000.5}, "date");
    store->setObject(std::int64_t{-9007199254740993}, "integer");
    store->setObject(1700000000.5, "real");
    store->setObject(true, "bool");
    store->setObject(std::string("abc"), "text");
    store->setObject(Bytes{'a', 'b', 'c'}, "bytes");
    store->setObject(Bytes{}, "empty bytes");
    store->setObject(std::string(), "empty text");

    EXPECT_EQ(store->object("date"), KeyValue(Date{1700000000.5}));
    EXPECT_EQ(store->object("integer"), KeyValue(std::int64_t{-9007199254740993}));
    EXPECT_EQ(store->object("real"), KeyValue(1700000000.5));
    EXPECT_EQ(store->object("bool"), KeyValue(true));
    EXPECT_EQ(store->object("text"), KeyValue(std::string("abc")));
    EXPECT_EQ(store->object("bytes"), KeyValue(Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(store->object("empty bytes"), KeyValue(Bytes{}));
    EXPECT_EQ(store->object("empty text"), KeyValue(std::string()));
    EXPECT_FALSE(store->object("missing").has_value());

    store->setObject(std::int64_t{1}, "bool");  // a new type replaces the old one
    EXPECT_EQ(store->object("bool"), KeyValue(std::int64_t{1}));
    store->removeObject("bool");
    store->removeObject("never there");
    EXPECT_FALSE(store->object("bool").has_value());
}

TEST(SqliteKeyValueStore, ValuesSurviveReopeningAndTheFileIsPrivate) {
    test::TempDir temp;
    const fs::path file = temp / "Preferences.sqlite";
    {
        SqliteKeyValueStore store(file);
        EXPECT_TRUE(store.isPersistent());
        store.setObject(Date{-62135769600.0}, "past");
        store.setObject(std::nan(""), "nan");
        store.setObject(std::string("kept"), "text");
        store.setObject(std::string("gone"), "removed");
        store.removeObject("removed");
    }
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);

    SqliteKeyValueStore reopened(file);
    EXPECT_EQ(reopened.object("past"), KeyValue(Date{-62135769600.0}));
    EXPECT_EQ(reopened.object("text"), KeyValue(std::string("kept")));
    EXPECT_FALSE(reopened.object("removed").has_value());
    const auto nan = reopened.object("nan");
    ASSERT_TRUE(nan && std::holds_alternative<double>(*nan));
    EXPECT_TRUE(std::isnan(std::get<double>(*nan)));
}

TEST(SqliteKeyValueStore, AFileThatIsNotADatabaseIsSetAsideAndTheStoreStartsEmpty) {
    test::TempDir temp;
    test::ConsoleCapture console;
    const fs::path file = temp / "Preferences.sqlite";
    const std::string garbage(4096, 'x');
    { std::ofstream(file) << garbage; }

    {
        SqliteKeyValueStore store(file);
        EXPECT_TRUE(store.isPersistent());
        EXPECT_FALSE(store.object("anything").has_value());
        store.setObject(std::int64_t{5}, "fresh");
    }
    ASSERT_EQ(console.lines().size(), 1u);
    EXPECT_NE(console.lines()[0].find("could not be read"), std::string::npos) << console.lines()[0];
    std::string aside;
    std::getline(std::ifstream(temp / "Preferences.sqlite.corrupt"), aside);
    EXPECT_EQ(aside, garbage);
    EXPECT_EQ(SqliteKeyValueStore(file).object("fresh"), KeyValue(std::int64_t{5}));
}

TEST(SqliteKeyValueStore, AnUnusablePathFallsBackToMemory) {
    test::TempDir temp;
    test::ConsoleCapture console;
    fs::create_directory(temp / "directory");
    SqliteKeyValueStore store(temp / "directory");
    EXPECT_FALSE(store.isPersistent());
    store.setObject(true, "flag");
    EXPECT_EQ(store.object("flag"), KeyValue(true));
    EXPECT_FALSE(console.lines().empty());
}

TEST(SqliteKeyValueStore, UnknownKindsAndMismatchedValuesReadAsAbsent) {
    test::TempDir temp;
    const fs::path file = temp / "Preferences.sqlite";
    { SqliteKeyValueStore store(file); }
    runSql(file,
           "INSERT INTO defaults VALUES ('future', 99, 1);"
           "INSERT INTO defaults VALUES ('integer as text', 2, 'seven');"
           "INSERT INTO defaults VALUES ('bytes as text', 6, 'abc');"
           "INSERT INTO defaults VALUES ('text', 5, 'fine');");
    SqliteKeyValueStore store(file);
    EXPECT_FALSE(store.object("future").has_value());
    EXPECT_FALSE(store.object("integer as text").has_value());
    EXPECT_FALSE(store.object("bytes as text").has_value());
    EXPECT_EQ(store.object("text"), KeyValue(std::string("fine")));
}

TEST(SqliteKeyValueStore, ConcurrentWritersOfDifferentKeysAllLand) {
    test::TempDir temp;
    SqliteKeyValueStore store(temp / "Preferences.sqlite");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&store, t] {
            for (int i = 0; i < 25; ++i) store.setObject(std::int64_t{i}, "k" + std::to_string(t));
        });
    }
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(store.object("k" + std::to_string(t)), KeyValue(std::int64_t{24}));
}

TEST(ForwardingKeyValueStore, AFaultDoubleOverridesOneMember) {
    struct DroppingWrites : ForwardingKeyValueStore {
        using ForwardingKeyValueStore::ForwardingKeyValueStore;
        void setObject(const Value&, const std::string&) override {}
    };
    auto inner = std::make_shared<InMemoryKeyValueStore>();
    inner->setObject(true, "kept");
    DroppingWrites store(inner);
    store.setObject(false, "kept");
    EXPECT_EQ(store.object("kept"), KeyValue(true));
    store.removeObject("kept");
    EXPECT_FALSE(inner->object("kept").has_value());
}

}  // namespace
}  // namespace rovalis
