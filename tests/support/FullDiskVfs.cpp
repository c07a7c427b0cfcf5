#include "support/FullDiskVfs.h"

#include <sqlite3.h>

#include <stdexcept>

namespace rovalis::test {

namespace {

using State = FullDiskVfs::State;

// Our file, followed in the same allocation by the default file system's own.
struct File {
    sqlite3_file base;
    State* state;
    sqlite3_file* real;
};
static_assert(sizeof(File) % 8 == 0, "the real file after it must stay aligned");

sqlite3_file* real(sqlite3_file* file) { return reinterpret_cast<File*>(file)->real; }
State& state(sqlite3_file* file) { return *reinterpret_cast<File*>(file)->state; }
State& state(sqlite3_vfs* vfs) { return *static_cast<State*>(vfs->pAppData); }

// What a full disk refuses: anything that needs space the file does not have yet.
bool needsNewSpace(sqlite3_file* file, sqlite3_int64 end) {
    if (!state(file).full.load()) return false;
    sqlite3_int64 size = 0;
    return real(file)->pMethods->xFileSize(real(file), &size) != SQLITE_OK || end > size;
}

int fileClose(sqlite3_file* file) { return real(file)->pMethods->xClose(real(file)); }

int fileRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return real(file)->pMethods->xRead(real(file), buffer, amount, offset);
}

int fileWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    if (state(file).full.load()) ++state(file).writesWhileFull;
    if (needsNewSpace(file, offset + amount)) return SQLITE_FULL;
    return real(file)->pMethods->xWrite(real(file), buffer, amount, offset);
}

int fileTruncate(sqlite3_file* file, sqlite3_int64 size) {
    if (needsNewSpace(file, size)) return SQLITE_FULL;
    return real(file)->pMethods->xTruncate(real(file), size);
}

int fileSync(sqlite3_file* file, int flags) { return real(file)->pMethods->xSync(real(file), flags); }

int fileSize(sqlite3_file* file, sqlite3_int64* size) { return real(file)->pMethods->xFileSize(real(file), size); }

int fileLock(sqlite3_file* file, int level) { return real(file)->pMethods->xLock(real(file), level); }

int fileUnlock(sqlite3_file* file, int level) { return real(file)->pMethods->xUnlock(real(file), level); }

int fileCheckReservedLock(sqlite3_file* file, int* out) {
    return real(file)->pMethods->xCheckReservedLock(real(file), out);
}

int fileControl(sqlite3_file* file, int op, void* arg) {
    // The default file system grows a file to the size hinted at by writing to it itself.
    if (op == SQLITE_FCNTL_SIZE_HINT && needsNewSpace(file, *static_cast<sqlite3_int64*>(arg))) return SQLITE_FULL;
    return real(file)->pMethods->xFileControl(real(file), op, arg);
}

int fileSectorSize(sqlite3_file* file) { return real(file)->pMethods->xSectorSize(real(file)); }

int fileDeviceCharacteristics(sqlite3_file* file) {
    return real(file)->pMethods->xDeviceCharacteristics(real(file));
}

int fileShmMap(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
    return real(file)->pMethods->xShmMap(real(file), region, size, extend, out);
}

int fileShmLock(sqlite3_file* file, int offset, int n, int flags) {
    return real(file)->pMethods->xShmLock(real(file), offset, n, flags);
}

void fileShmBarrier(sqlite3_file* file) { real(file)->pMethods->xShmBarrier(real(file)); }

int fileShmUnmap(sqlite3_file* file, int deleteFlag) { return real(file)->pMethods->xShmUnmap(real(file), deleteFlag); }

int fileFetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out) {
    return real(file)->pMethods->xFetch(real(file), offset, amount, out);
}

int fileUnfetch(sqlite3_file* file, sqlite3_int64 offset, void* page) {
    return real(file)->pMethods->xUnfetch(real(file), offset, page);
}

const sqlite3_io_methods fileMethods = {
    3,           fileClose,        fileRead,       fileWrite,       fileTruncate,   fileSync,
    fileSize,    fileLock,         fileUnlock,     fileCheckReservedLock,           fileControl,
    fileSectorSize, fileDeviceCharacteristics,     fileShmMap,      fileShmLock,    fileShmBarrier,
    fileShmUnmap, fileFetch,       fileUnfetch,
};

int vfsOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    auto* ours = reinterpret_cast<File*>(file);
    ours->state = &state(vfs);
    ours->real = reinterpret_cast<sqlite3_file*>(ours + 1);
    sqlite3_vfs* realVfs = state(vfs).real;
    const int rc = realVfs->xOpen(realVfs, name, ours->real, flags, outFlags);
    file->pMethods = ours->real->pMethods ? &fileMethods : nullptr;
    return rc;
}

int vfsDelete(sqlite3_vfs* vfs, const char* name, int syncDir) {
    return state(vfs).real->xDelete(state(vfs).real, name, syncDir);
}

int vfsAccess(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
    return state(vfs).real->xAccess(state(vfs).real, name, flags, out);
}

int vfsFullPathname(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    return state(vfs).real->xFullPathname(state(vfs).real, name, size, out);
}

int vfsRandomness(sqlite3_vfs* vfs, int size, char* out) {
    return state(vfs).real->xRandomness(state(vfs).real, size, out);
}

int vfsSleep(sqlite3_vfs* vfs, int microseconds) { return state(vfs).real->xSleep(state(vfs).real, microseconds); }

int vfsCurrentTime(sqlite3_vfs* vfs, double* out) { return state(vfs).real->xCurrentTime(state(vfs).real, out); }

int vfsGetLastError(sqlite3_vfs* vfs, int size, char* out) {
    return state(vfs).real->xGetLastError(state(vfs).real, size, out);
}

int vfsCurrentTimeInt64(sqlite3_vfs* vfs, sqlite3_int64* out) {
    return state(vfs).real->xCurrentTimeInt64(state(vfs).real, out);
}

}  // namespace

FullDiskVfs::FullDiskVfs() : vfs_(std::make_unique<sqlite3_vfs>()) {
    state_.real = sqlite3_vfs_find(nullptr);
    if (!state_.real || state_.real->iVersion < 2 || state_.real->xCurrentTimeInt64 == nullptr) {
        throw std::runtime_error("the default SQLite file system is not one this test double can wrap");
    }
    *vfs_ = sqlite3_vfs{};
    vfs_->iVersion = 2;
    vfs_->szOsFile = static_cast<int>(sizeof(File)) + state_.real->szOsFile;
    vfs_->mxPathname = state_.real->mxPathname;
    vfs_->zName = "rovalis-full-disk";
    vfs_->pAppData = &state_;
    vfs_->xOpen = vfsOpen;
    vfs_->xDelete = vfsDelete;
    vfs_->xAccess = vfsAccess;
    vfs_->xFullPathname = vfsFullPathname;
    vfs_->xRandomness = vfsRandomness;
    vfs_->xSleep = vfsSleep;
    vfs_->xCurrentTime = vfsCurrentTime;
    vfs_->xGetLastError = vfsGetLastError;
    vfs_->xCurrentTimeInt64 = vfsCurrentTimeInt64;
    sqlite3_vfs_register(vfs_.get(), /*makeDflt=*/1);
}

FullDiskVfs::~FullDiskVfs() { sqlite3_vfs_unregister(vfs_.get()); }

}  // namespace rovalis::test
