#pragma once

#include <filesystem>
#include <mutex>
#include <string>

#include "rovalis/platform/Keychain.h"

namespace rovalis {

// The keychain on Linux: a private directory (0700) with one file (0600) per item. A file's
// name is the hexadecimal text of the service's bytes, ".", and that of the account's, so
// no service or account can name a path outside the directory; its content is a short
// header with the item's accessibility, followed by the value's bytes.
//
// Every write goes to a temporary file in the same directory that is synced and then
// renamed over the item, and the directory is synced after, so after a crash an item holds
// either its old value or its new one. Calls are serialised by a mutex within the process
// and by a lock on the directory between processes (and between two stores over one
// directory). A file that is not in the item format reads as absent; adding the item
// replaces it. Failures of the file system are reported as their errno value.
class FileKeychain final : public KeychainStore {
public:
    // Creates the directory if needed. Temporary files left by a process that stopped in
    // the middle of a write are removed.
    explicit FileKeychain(std::filesystem::path directory);

    FileKeychain(const FileKeychain&) = delete;
    FileKeychain& operator=(const FileKeychain&) = delete;

    KeychainLookup copyMatching(const KeychainQuery& query, bool returnData) override;
    KeychainStatus add(const KeychainQuery& query, KeychainAccessibility accessibility, const Bytes& data) override;
    KeychainStatus update(const KeychainQuery& query, const Bytes& data, KeychainAccessibility accessibility) override;
    KeychainStatus remove(const KeychainQuery& query) override;

    const std::filesystem::path& directory() const { return directory_; }
    // The name of the file that holds the item.
    static std::string itemFileName(const KeychainQuery& query);

private:
    class DirectoryLock;
    struct Item;

    // Success with the item, kKeychainItemNotFound when there is no readable item, or errno.
    KeychainStatus read(const std::string& name, Item& item) const;
    // Writes the item to a new temporary file and renames it to `name`.
    KeychainStatus write(const DirectoryLock& lock, const std::string& name, KeychainAccessibility accessibility,
                         const Bytes& data);
    void removeTemporaryFiles();

    const std::filesystem::path directory_;
    mutable std::mutex mutex_;
};

}  // namespace rovalis
