// A VFS that forwards every call to the default one and kills the process after the
// first write to a main database file, for the "commit" failpoint.
#include "failpoint_vfs.h"

#include "failpoint.h"

#include <sqlite3.h>

#include <signal.h>
#include <unistd.h>

namespace kelsim {
namespace {

// The default VFS's file follows this header in the same allocation.
struct ShimFile {
    sqlite3_file base;
    bool mainDatabase;
};

sqlite3_vfs *defaultVfs = nullptr;

sqlite3_file *real(sqlite3_file *file) {
    return reinterpret_cast<sqlite3_file *>(reinterpret_cast<ShimFile *>(file) + 1);
}

int shimClose(sqlite3_file *f) {
    return real(f)->pMethods->xClose(real(f));
}
int shimRead(sqlite3_file *f, void *out, int amount, sqlite3_int64 offset) {
    return real(f)->pMethods->xRead(real(f), out, amount, offset);
}
int shimWrite(sqlite3_file *f, const void *in, int amount, sqlite3_int64 offset) {
    int rc = real(f)->pMethods->xWrite(real(f), in, amount, offset);
    if (reinterpret_cast<ShimFile *>(f)->mainDatabase) {
        kill(getpid(), SIGKILL);
    }
    return rc;
}
int shimTruncate(sqlite3_file *f, sqlite3_int64 size) {
    return real(f)->pMethods->xTruncate(real(f), size);
}
int shimSync(sqlite3_file *f, int flags) {
    return real(f)->pMethods->xSync(real(f), flags);
}
int shimFileSize(sqlite3_file *f, sqlite3_int64 *size) {
    return real(f)->pMethods->xFileSize(real(f), size);
}
int shimLock(sqlite3_file *f, int level) {
    return real(f)->pMethods->xLock(real(f), level);
}
int shimUnlock(sqlite3_file *f, int level) {
    return real(f)->pMethods->xUnlock(real(f), level);
}
int shimCheckReservedLock(sqlite3_file *f, int *out) {
    return real(f)->pMethods->xCheckReservedLock(real(f), out);
}
int shimFileControl(sqlite3_file *f, int op, void *arg) {
    return real(f)->pMethods->xFileControl(real(f), op, arg);
}
int shimSectorSize(sqlite3_file *f) {
    return real(f)->pMethods->xSectorSize(real(f));
}
int shimDeviceCharacteristics(sqlite3_file *f) {
    return real(f)->pMethods->xDeviceCharacteristics(real(f));
}
int shimShmMap(sqlite3_file *f, int region, int size, int extend, void volatile **out) {
    return real(f)->pMethods->xShmMap(real(f), region, size, extend, out);
}
int shimShmLock(sqlite3_file *f, int offset, int n, int flags) {
    return real(f)->pMethods->xShmLock(real(f), offset, n, flags);
}
void shimShmBarrier(sqlite3_file *f) {
    real(f)->pMethods->xShmBarrier(real(f));
}
int shimShmUnmap(sqlite3_file *f, int deleteFlag) {
    return real(f)->pMethods->xShmUnmap(real(f), deleteFlag);
}
int shimFetch(sqlite3_file *f, sqlite3_int64 offset, int amount, void **out) {
    return real(f)->pMethods->xFetch(real(f), offset, amount, out);
}
int shimUnfetch(sqlite3_file *f, sqlite3_int64 offset, void *page) {
    return real(f)->pMethods->xUnfetch(real(f), offset, page);
}

const sqlite3_io_methods shimMethods = {
    3,
    shimClose,
    shimRead,
    shimWrite,
    shimTruncate,
    shimSync,
    shimFileSize,
    shimLock,
    shimUnlock,
    shimCheckReservedLock,
    shimFileControl,
    shimSectorSize,
    shimDeviceCharacteristics,
    shimShmMap,
    shimShmLock,
    shimShmBarrier,
    shimShmUnmap,
    shimFetch,
    shimUnfetch,
};

int shimOpen(sqlite3_vfs *, sqlite3_filename name, sqlite3_file *file, int flags, int *outFlags) {
    auto *shim = reinterpret_cast<ShimFile *>(file);
    shim->base.pMethods = nullptr;
    shim->mainDatabase = (flags & SQLITE_OPEN_MAIN_DB) != 0;
    int rc = defaultVfs->xOpen(defaultVfs, name, real(file), flags, outFlags);
    if (rc == SQLITE_OK && real(file)->pMethods != nullptr) {
        shim->base.pMethods = &shimMethods;
    }
    return rc;
}

} // namespace

const char *commitFailpointVfs() {
    static sqlite3_vfs shim;
    if (!failpointArmed(failpoint_step::kCommit)) {
        return nullptr;
    }
    if (defaultVfs == nullptr) {
        defaultVfs = sqlite3_vfs_find(nullptr);
        shim = *defaultVfs;
        shim.szOsFile = static_cast<int>(sizeof(ShimFile)) + defaultVfs->szOsFile;
        shim.zName = "kelsim-commit-failpoint";
        shim.xOpen = shimOpen;
        shim.pNext = nullptr;
        sqlite3_vfs_register(&shim, 0);
    }
    return shim.zName;
}

} // namespace kelsim
