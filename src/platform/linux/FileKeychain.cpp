#include "platform/linux/FileKeychain.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>

#include "util/DataRoot.h"

namespace rovalis {

namespace fs = std::filesystem;

namespace {

// An item file starts with these bytes, then one byte for the accessibility, then the value.
constexpr std::array<std::uint8_t, 4> kMagic{'R', 'V', 'K', '1'};
constexpr std::uint8_t kAfterFirstUnlock = 'a';
constexpr std::uint8_t kAfterFirstUnlockThisDeviceOnly = 'd';
// Temporary files carry this in their name; an item's name never does (it is hexadecimal
// digits and one ".").
constexpr const char* kTemporaryMark = ".tmp.";

std::string hex(const std::string& text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string result;
    result.reserve(text.size() * 2);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        result.push_back(digits[byte >> 4]);
        result.push_back(digits[byte & 0x0F]);
    }
    return result;
}

int closeKeepingErrno(int fd) {
    const int error = errno;
    ::close(fd);
    return error;
}

KeychainStatus writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return kKeychainSuccess;
}

}  // namespace

struct FileKeychain::Item {
    KeychainAccessibility accessibility = KeychainAccessibility::afterFirstUnlockThisDeviceOnly;
    Bytes data;
};

// Holds the directory open and locked for one write, and syncs it so that a rename done
// under the lock is durable.
class FileKeychain::DirectoryLock {
public:
    explicit DirectoryLock(const fs::path& directory) {
        fd_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd_ < 0 && errno == ENOENT && ensurePrivateDirectory(directory)) {
            fd_ = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        }
        if (fd_ < 0) {
            status_ = errno;
            return;
        }
        // A file system without such locks (some network mounts) still has the mutex, which
        // serialises every writer within the process.
        while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~DirectoryLock() {
        if (fd_ >= 0) ::close(fd_);
    }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

    KeychainStatus status() const { return status_; }
    KeychainStatus sync() const { return ::fsync(fd_) == 0 ? kKeychainSuccess : errno; }

private:
    int fd_ = -1;
    KeychainStatus status_ = kKeychainSuccess;
};

FileKeychain::FileKeychain(fs::path directory) : directory_(std::move(directory)) {
    ensurePrivateDirectory(directory_);
    removeTemporaryFiles();
}

std::string FileKeychain::itemFileName(const KeychainQuery& query) {
    return hex(query.service) + "." + hex(query.account);
}

void FileKeychain::removeTemporaryFiles() {
    std::lock_guard guard(mutex_);
    // Writers hold the lock for as long as their temporary file exists, so what is found
    // under it was left by a write that never finished. It may hold a secret: remove it.
    const DirectoryLock lock(directory_);
    if (lock.status() != kKeychainSuccess) return;
    DIR* entries = ::opendir(directory_.c_str());
    if (entries == nullptr) return;
    while (const dirent* entry = ::readdir(entries)) {
        const std::string name = entry->d_name;
        if (name.find(kTemporaryMark) != std::string::npos) ::unlinkat(::dirfd(entries), name.c_str(), 0);
    }
    ::closedir(entries);
    lock.sync();
}

KeychainStatus FileKeychain::read(const std::string& name, Item& item) const {
    const fs::path file = directory_ / name;
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return errno == ENOENT ? kKeychainItemNotFound : errno;
    Bytes content;
    std::array<std::uint8_t, 4096> buffer{};
    for (;;) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) continue;
            return closeKeepingErrno(fd);
        }
        if (got == 0) break;
        content.insert(content.end(), buffer.begin(), buffer.begin() + got);
    }
    ::close(fd);

    if (content.size() < kMagic.size() + 1 || !std::equal(kMagic.begin(), kMagic.end(), content.begin())) {
        return kKeychainItemNotFound;
    }
    switch (content[kMagic.size()]) {
        case kAfterFirstUnlock: item.accessibility = KeychainAccessibility::afterFirstUnlock; break;
        case kAfterFirstUnlockThisDeviceOnly:
            item.accessibility = KeychainAccessibility::afterFirstUnlockThisDeviceOnly;
            break;
        default: return kKeychainItemNotFound;
    }
    item.data.assign(content.begin() + static_cast<std::ptrdiff_t>(kMagic.size() + 1), content.end());
    return kKeychainSuccess;
}

KeychainStatus FileKeychain::write(const DirectoryLock& lock, const std::string& name,
                                   KeychainAccessibility accessibility, const Bytes& data) {
    Bytes content(kMagic.begin(), kMagic.end());
    content.push_back(accessibility == KeychainAccessibility::afterFirstUnlock ? kAfterFirstUnlock
                                                                                : kAfterFirstUnlockThisDeviceOnly);
    content.insert(content.end(), data.begin(), data.end());

    // mkostemp creates the file with mode 0600.
    std::string temporary = (directory_ / (name + kTemporaryMark + "XXXXXX")).string();
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) return errno;
    KeychainStatus status = writeAll(fd, content.data(), content.size());
    if (status == kKeychainSuccess && ::fsync(fd) != 0) status = errno;
    if (::close(fd) != 0 && status == kKeychainSuccess) status = errno;
    if (status == kKeychainSuccess && ::rename(temporary.c_str(), (directory_ / name).c_str()) != 0) status = errno;
    if (status != kKeychainSuccess) {
        ::unlink(temporary.c_str());
        return status;
    }
    return lock.sync();
}

KeychainLookup FileKeychain::copyMatching(const KeychainQuery& query, bool returnData) {
    std::lock_guard guard(mutex_);
    Item item;
    KeychainLookup lookup;
    lookup.status = read(itemFileName(query), item);
    if (lookup.status == kKeychainSuccess && returnData) lookup.data = std::move(item.data);
    return lookup;
}

KeychainStatus FileKeychain::add(const KeychainQuery& query, KeychainAccessibility accessibility, const Bytes& data) {
    std::lock_guard guard(mutex_);
    const DirectoryLock lock(directory_);
    if (lock.status() != kKeychainSuccess) return lock.status();
    const std::string name = itemFileName(query);
    Item existing;
    const KeychainStatus found = read(name, existing);
    if (found == kKeychainSuccess) return kKeychainDuplicateItem;
    if (found != kKeychainItemNotFound) return found;
    return write(lock, name, accessibility, data);
}

KeychainStatus FileKeychain::update(const KeychainQuery& query, const Bytes& data,
                                    KeychainAccessibility accessibility) {
    std::lock_guard guard(mutex_);
    const DirectoryLock lock(directory_);
    if (lock.status() != kKeychainSuccess) return lock.status();
    const std::string name = itemFileName(query);
    Item existing;
    const KeychainStatus found = read(name, existing);
    if (found != kKeychainSuccess) return found;
    return write(lock, name, accessibility, data);
}

KeychainStatus FileKeychain::remove(const KeychainQuery& query) {
    std::lock_guard guard(mutex_);
    const DirectoryLock lock(directory_);
    if (lock.status() != kKeychainSuccess) return lock.status();
    if (::unlink((directory_ / itemFileName(query)).c_str()) != 0) {
        return errno == ENOENT ? kKeychainItemNotFound : errno;
    }
    return lock.sync();
}

}  // namespace rovalis
