#pragma once

// A SQLite file system for tests that can be made full. It forwards everything to the
// default one and, while full, refuses with SQLITE_FULL what a full file system refuses:
// a write or a resize that would make a file larger. Space a file already has can still be
// written over, as on a real disk.
//
// While an object lives it is the default file system of every connection opened after it
// was made; destroy it only after those connections have closed.

#include <atomic>
#include <memory>

struct sqlite3_vfs;

namespace rovalis::test {

class FullDiskVfs {
public:
    FullDiskVfs();
    ~FullDiskVfs();
    FullDiskVfs(const FullDiskVfs&) = delete;
    FullDiskVfs& operator=(const FullDiskVfs&) = delete;

    void setFull(bool full) { state_.full.store(full); }
    // Writes asked of any file while the disk was full, refused or not.
    int writesWhileFull() const { return state_.writesWhileFull.load(); }

    struct State {
        sqlite3_vfs* real = nullptr;
        std::atomic<bool> full{false};
        std::atomic<int> writesWhileFull{0};
    };

private:
    State state_;
    std::unique_ptr<sqlite3_vfs> vfs_;
};

}  // namespace rovalis::test
