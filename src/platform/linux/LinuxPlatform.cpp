#include "platform/linux/LinuxPlatform.h"

#include "platform/linux/FileKeychain.h"
#include "platform/linux/SqliteKeyValueStore.h"
#include "util/ThreadRunLoop.h"

namespace rovalis {

Platform makeLinuxPlatform(const DataRoot& root) {
    Platform platform;
    platform.dateSource = std::make_shared<SystemDateSource>();
    platform.mainRunLoop = std::make_shared<ThreadRunLoop>(platform.dateSource);
    platform.keyValueStore = std::make_shared<SqliteKeyValueStore>(root.root() / "Preferences.sqlite");
    platform.keychain = std::make_shared<FileKeychain>(root.privateDirectory("Keychain"));
    return platform;
}

}  // namespace rovalis
