// The readers of the SDK's own files, which a damaged disk can fill with anything: each reads
// a value or refuses it, and what it reads, written again, reads back the same.
//
// The first byte chooses: 0 the pause record, 1 the background-upload journal, 2 a keychain
// item's file, 3 an event row's payload (its type, a newline, then the payload as the row keeps
// it, possibly without its ending), 4 a value of
// the key-value store (its kind, its column type, then the value).

#include <sqlite3.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "core/PauseManager.h"
#include "events/StoreSalvage.h"
#include "events/StoredPayload.h"
#include "platform/linux/FileKeychain.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "rovalis/Console.h"
#include "upload/BackgroundTaskJournal.h"

namespace {

using rovalis::fuzz::readFile;
using rovalis::fuzz::require;
using rovalis::fuzz::writeFile;
namespace fs = std::filesystem;

// Files that sync on every write live in memory when the machine has a place for that.
fs::path workDirectory(const char* name) {
    const fs::path shared = "/dev/shm";
    fs::path base = rovalis::fuzz::scratchDirectory();
    if (fs::is_directory(shared)) {
        static const fs::path inMemory = [&] {
            std::string pattern = (shared / "rovalis-fuzz-XXXXXX").string();
            require(::mkdtemp(pattern.data()) != nullptr, "cannot make a directory in /dev/shm");
            std::atexit([] { fs::remove_all(inMemory); });
            return fs::path(pattern);
        }();
        base = inMemory;
    }
    fs::create_directories(base / name);
    return base / name;
}

bool sameDate(rovalis::Date a, rovalis::Date b) {
    return a == b || (std::isnan(a.secondsSince1970) && std::isnan(b.secondsSince1970));
}

void pauseRecord(std::string_view bytes) {
    const auto record = rovalis::PauseRecord::decode({bytes.begin(), bytes.end()});
    if (!record) return;
    require(std::abs(record->latitude) <= 90 && std::abs(record->longitude) <= 180,
            "a pause record off the globe was read");
    const auto encoded = record->encode();
    require(encoded.has_value(), "a pause record that was read cannot be written");
    require(rovalis::PauseRecord::decode(*encoded) == record, "a pause record changed through writing and reading");
}

bool sameTask(const rovalis::JournaledTask& a, const rovalis::JournaledTask& b) {
    const auto& x = a.request;
    const auto& y = b.request;
    return a.taskIdentifier == b.taskIdentifier && a.bodyFile == b.bodyFile && sameDate(a.created, b.created) &&
           x.url == y.url && x.httpMethod == y.httpMethod && x.headers == y.headers &&
           x.textProperties == y.textProperties && x.properties == y.properties;
}

void journal(std::string_view bytes) {
    const rovalis::BackgroundTaskJournal journal(workDirectory("journal"), "fuzz");
    writeFile(journal.file(), bytes);
    auto tasks = journal.load();
    if (tasks.empty()) return;
    // Credentials never go to disk: a journal that holds some loses them when written again.
    for (auto& task : tasks) task.request = rovalis::BackgroundTaskJournal::withoutCredentials(task.request);
    require(journal.store(tasks), "a journal that was read cannot be written");
    const auto again = journal.load();
    require(again.size() == tasks.size(), "the journal lost tasks through writing and reading");
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        require(sameTask(tasks[i], again[i]), "a journaled task changed through writing and reading");
    }
}

void keychainItem(std::string_view bytes) {
    static rovalis::FileKeychain keychain(workDirectory("keychain"));
    const rovalis::KeychainQuery query{rovalis::KeychainItemClass::genericPassword, "fuzz", "item"};
    const fs::path file = keychain.directory() / rovalis::FileKeychain::itemFileName(query);
    writeFile(file, bytes);
    const auto lookup = keychain.copyMatching(query, true);
    if (lookup.status != rovalis::kKeychainSuccess) {
        require(lookup.status == rovalis::kKeychainItemNotFound, "a damaged item gave an error, not absence");
        return;
    }
    require(lookup.data.has_value(), "an item read without its value");
    // The item written again with its own accessibility is the same file. Which accessibility
    // it has is not visible to a reader, so both are tried: one gives the same bytes.
    bool same = false;
    for (const auto accessibility : {rovalis::KeychainAccessibility::afterFirstUnlock,
                                     rovalis::KeychainAccessibility::afterFirstUnlockThisDeviceOnly}) {
        require(keychain.update(query, *lookup.data, accessibility) == rovalis::kKeychainSuccess,
                "an item that was read cannot be written");
        same = same || readFile(file) == bytes;
    }
    require(same, "an item changed through reading and writing");
    require(keychain.copyMatching(query, true).data == lookup.data, "an item's value changed through writing");
}

void eventPayload(std::string_view bytes) {
    const std::size_t newline = std::min(bytes.find('\n'), bytes.size());
    rovalis::SalvagedRow row;
    row.type = std::string(bytes.substr(0, newline));
    const std::string_view kept = bytes.substr(std::min(newline + 1, bytes.size()));
    row.payload = rovalis::stored_payload::restored(row.type, row.trackedAt, kept);
    if (!rovalis::StoreSalvage::isPlausibleEvent(row)) return;
    // A payload carried over goes into a batch document as it is: it has to be JSON text.
    const auto json = nlohmann::json::parse(row.payload, nullptr, false);
    require(json.is_object(), "a plausible event's payload is not a JSON object");
    try {
        (void)json.dump();
    } catch (const nlohmann::json::exception&) {
        rovalis::fuzz::fail("a plausible event's payload is not UTF-8");
    }
}

bool sameValue(const rovalis::KeyValue& a, const rovalis::KeyValue& b) {
    if (a.index() != b.index()) return false;
    if (const auto* x = std::get_if<double>(&a)) {
        const double y = std::get<double>(b);
        return *x == y || (std::isnan(*x) && std::isnan(y));
    }
    if (const auto* x = std::get_if<rovalis::Date>(&a)) return sameDate(*x, std::get<rovalis::Date>(b));
    return a == b;
}

void keyValue(std::string_view bytes) {
    if (bytes.size() < 2) return;
    static const fs::path file = workDirectory("defaults") / "defaults.sqlite";
    static rovalis::SqliteKeyValueStore store(file);
    // A second connection writes the row as a damaged or foreign file could hold it.
    static sqlite3* writer = [] {
        sqlite3* db = nullptr;
        require(sqlite3_open(file.c_str(), &db) == SQLITE_OK, "cannot open the key-value store's file");
        return db;
    }();
    sqlite3_stmt* insert = nullptr;
    require(sqlite3_prepare_v2(writer, "INSERT OR REPLACE INTO defaults (key, kind, value) VALUES ('read', ?1, ?2)",
                               -1, &insert, nullptr) == SQLITE_OK,
            "cannot prepare the row's insert");
    sqlite3_bind_int(insert, 1, static_cast<signed char>(bytes[0]) % 8);
    const std::string_view value = bytes.substr(2);
    std::int64_t number = 0;
    std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
    double real = 0;
    std::memcpy(&real, &number, sizeof real);
    switch (static_cast<unsigned char>(bytes[1]) % 5) {
        case 0: sqlite3_bind_null(insert, 2); break;
        case 1: sqlite3_bind_int64(insert, 2, number); break;
        case 2: sqlite3_bind_double(insert, 2, real); break;
        case 3: sqlite3_bind_text(insert, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC); break;
        default: sqlite3_bind_blob(insert, 2, value.data(), static_cast<int>(value.size()), SQLITE_STATIC); break;
    }
    require(sqlite3_step(insert) == SQLITE_DONE, "cannot write the row");
    sqlite3_finalize(insert);

    const auto read = store.object("read");
    if (!read) return;
    store.setObject(*read, "written");
    const auto again = store.object("written");
    require(again && sameValue(*again, *read), "a stored value changed through writing and reading");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The readers say on the console what they drop; a run would print little else.
    rovalis::Console::setSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return rovalis::fuzz::readWithChosenReader(data, size, {pauseRecord, journal, keychainItem, eventPayload, keyValue});
}
