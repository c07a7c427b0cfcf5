#include "events/WriteCountingVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace rovalis::sqlite {

namespace {

constexpr const char* vfsName = "rovalis-write-counting";

std::atomic<std::uint64_t> bytesWritten{0};

// The default file system at the time of the call: a test may install one of its own.
sqlite3_vfs* realVfs() { return sqlite3_vfs_find(nullptr); }

// Ours, with the default file system's own file allocated apart, since its size is only
// known once a file is opened.
struct File {
    sqlite3_file base;
    sqlite3_file* real;
};

sqlite3_file* real(sqlite3_file* file) { return reinterpret_cast<File*>(file)->real; }
const sqlite3_io_methods& realMethods(sqlite3_file* file) { return *real(file)->pMethods; }

int fileClose(sqlite3_file* file) {
    const int rc = realMethods(file).xClose(real(file));
    sqlite3_free(real(file));
    reinterpret_cast<File*>(file)->real = nullptr;
    return rc;
}

int fileRead(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return realMethods(file).xRead(real(file), buffer, amount, offset);
}

int fileWrite(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    const int rc = realMethods(file).xWrite(real(file), buffer, amount, offset);
    if (rc == SQLITE_OK) bytesWritten.fetch_add(static_cast<std::uint64_t>(amount), std::memory_order_relaxed);
    return rc;
}

int fileTruncate(sqlite3_file* file, sqlite3_int64 size) { return realMethods(file).xTruncate(real(file), size); }

int fileSync(sqlite3_file* file, int flags) { return realMethods(file).xSync(real(file), flags); }

int fileSize(sqlite3_file* file, sqlite3_int64* size) { return realMethods(file).xFileSize(real(file), size); }

int fileLock(sqlite3_file* file, int level) { return realMethods(file).xLock(real(file), level); }

int fileUnlock(sqlite3_file* file, int level) { return realMethods(file).xUnlock(real(file), level); }

int fileCheckReservedLock(sqlite3_file* file, int* out) {
    return realMethods(file).xCheckReservedLock(real(file), out);
}

int fileControl(sqlite3_file* file, int op, void* arg) { return realMethods(file).xFileControl(real(file), op, arg); }

int fileSectorSize(sqlite3_file* file) { return realMethods(file).xSectorSize(real(file)); }

int fileDeviceCharacteristics(sqlite3_file* file) { return realMethods(file).xDeviceCharacteristics(real(file)); }

// Shared memory and memory mapping exist only from versions 2 and 3 of the real methods.
int fileShmMap(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
    if (realMethods(file).iVersion < 2) return SQLITE_IOERR;
    return realMethods(file).xShmMap(real(file), region, size, extend, out);
}

int fileShmLock(sqlite3_file* file, int offset, int n, int flags) {
    if (realMethods(file).iVersion < 2) return SQLITE_IOERR;
    return realMethods(file).xShmLock(real(file), offset, n, flags);
}

void fileShmBarrier(sqlite3_file* file) {
    if (realMethods(file).iVersion >= 2) realMethods(file).xShmBarrier(real(file));
}

int fileShmUnmap(sqlite3_file* file, int deleteFlag) {
    if (realMethods(file).iVersion < 2) return SQLITE_OK;
    return realMethods(file).xShmUnmap(real(file), deleteFlag);
}

int fileFetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** out) {
    if (realMethods(file).iVersion < 3) {
        *out = nullptr;
        return SQLITE_OK;
    }
    return realMethods(file).xFetch(real(file), offset, amount, out);
}

int fileUnfetch(sqlite3_file* file, sqlite3_int64 offset, void* page) {
    if (realMethods(file).iVersion < 3) return SQLITE_OK;
    return realMethods(file).xUnfetch(real(file), offset, page);
}

const sqlite3_io_methods fileMethods = {
    3,          fileClose,   fileRead,    fileWrite,      fileTruncate,          fileSync,
    fileSize,   fileLock,    fileUnlock,  fileCheckReservedLock,                 fileControl,
    fileSectorSize, fileDeviceCharacteristics, fileShmMap, fileShmLock,          fileShmBarrier,
    fileShmUnmap, fileFetch, fileUnfetch,
};

int vfsOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    auto* ours = reinterpret_cast<File*>(file);
    file->pMethods = nullptr;
    sqlite3_vfs* vfs = realVfs();
    ours->real = static_cast<sqlite3_file*>(sqlite3_malloc64(static_cast<sqlite3_uint64>(vfs->szOsFile)));
    if (!ours->real) return SQLITE_NOMEM;
    std::memset(ours->real, 0, static_cast<std::size_t>(vfs->szOsFile));
    const int rc = vfs->xOpen(vfs, name, ours->real, flags, outFlags);
    // A file the real system left with methods is closed through ours, which frees it.
    if (ours->real->pMethods) {
        file->pMethods = &fileMethods;
    } else {
        sqlite3_free(ours->real);
        ours->real = nullptr;
    }
    return rc;
}

int vfsDelete(sqlite3_vfs*, const char* name, int syncDir) { return realVfs()->xDelete(realVfs(), name, syncDir); }

int vfsAccess(sqlite3_vfs*, const char* name, int flags, int* out) {
    return realVfs()->xAccess(realVfs(), name, flags, out);
}

int vfsFullPathname(sqlite3_vfs*, const char* name, int size, char* out) {
    return realVfs()->xFullPathname(realVfs(), name, size, out);
}

int vfsRandomness(sqlite3_vfs*, int size, char* out) { return realVfs()->xRandomness(realVfs(), size, out); }

int vfsSleep(sqlite3_vfs*, int microseconds) { return realVfs()->xSleep(realVfs(), microseconds); }

int vfsCurrentTime(sqlite3_vfs*, double* out) { return realVfs()->xCurrentTime(realVfs(), out); }

int vfsGetLastError(sqlite3_vfs*, int size, char* out) { return realVfs()->xGetLastError(realVfs(), size, out); }

int vfsCurrentTimeInt64(sqlite3_vfs*, sqlite3_int64* out) {
    sqlite3_vfs* vfs = realVfs();
    if (vfs->iVersion >= 2 && vfs->xCurrentTimeInt64) return vfs->xCurrentTimeInt64(vfs, out);
    double days = 0;
    const int rc = vfs->xCurrentTime(vfs, &days);
    *out = static_cast<sqlite3_int64>(days * 86400000.0);
    return rc;
}

}  // namespace

const char* writeCountingVfsName() {
    static std::once_flag registered;
    static sqlite3_vfs vfs{};
    std::call_once(registered, [] {
        sqlite3_initialize();
        vfs.iVersion = 2;
        vfs.szOsFile = static_cast<int>(sizeof(File));
        vfs.mxPathname = realVfs()->mxPathname;
        vfs.zName = vfsName;
        vfs.xOpen = vfsOpen;
        vfs.xDelete = vfsDelete;
        vfs.xAccess = vfsAccess;
        vfs.xFullPathname = vfsFullPathname;
        vfs.xRandomness = vfsRandomness;
        vfs.xSleep = vfsSleep;
        vfs.xCurrentTime = vfsCurrentTime;
        vfs.xGetLastError = vfsGetLastError;
        vfs.xCurrentTimeInt64 = vfsCurrentTimeInt64;
        sqlite3_vfs_register(&vfs, /*makeDflt=*/0);
    });
    return vfsName;
}

std::uint64_t bytesWrittenThroughCountingVfs() { return bytesWritten.load(std::memory_order_relaxed); }

}  // namespace rovalis::sqlite
