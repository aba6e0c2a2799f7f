#include "tests/support/FaultVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace orvik::test {

namespace {

sqlite3_vfs* base = nullptr;
sqlite3_vfs faultVfs;

std::atomic<int> target{-1};  // -1: disarmed
std::atomic<int> remaining{0};
std::atomic<bool> hasFired{false};

// Counts one operation of the kind; true when it is the one to fail.
bool shouldFail(FaultVfs::Target kind) {
    if (target.load() != static_cast<int>(kind)) {
        return false;
    }
    if (remaining.fetch_sub(1) == 1) {
        target = -1;
        hasFired = true;
        return true;
    }
    return false;
}

// Our file: the methods pointer, then the base VFS's file.
struct FaultFile {
    sqlite3_file header;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

FaultFile* self(sqlite3_file* file) {
    return reinterpret_cast<FaultFile*>(file);
}

int xClose(sqlite3_file* f) {
    return self(f)->real()->pMethods->xClose(self(f)->real());
}
int xRead(sqlite3_file* f, void* buffer, int n, sqlite3_int64 offset) {
    return self(f)->real()->pMethods->xRead(self(f)->real(), buffer, n, offset);
}
int xWrite(sqlite3_file* f, const void* buffer, int n, sqlite3_int64 offset) {
    if (shouldFail(FaultVfs::Target::write)) {
        return SQLITE_IOERR_WRITE;
    }
    return self(f)->real()->pMethods->xWrite(self(f)->real(), buffer, n, offset);
}
int xTruncate(sqlite3_file* f, sqlite3_int64 size) {
    return self(f)->real()->pMethods->xTruncate(self(f)->real(), size);
}
int xSync(sqlite3_file* f, int flags) {
    if (shouldFail(FaultVfs::Target::sync)) {
        return SQLITE_IOERR_FSYNC;
    }
    return self(f)->real()->pMethods->xSync(self(f)->real(), flags);
}
int xFileSize(sqlite3_file* f, sqlite3_int64* size) {
    return self(f)->real()->pMethods->xFileSize(self(f)->real(), size);
}
int xLock(sqlite3_file* f, int level) {
    return self(f)->real()->pMethods->xLock(self(f)->real(), level);
}
int xUnlock(sqlite3_file* f, int level) {
    return self(f)->real()->pMethods->xUnlock(self(f)->real(), level);
}
int xCheckReservedLock(sqlite3_file* f, int* out) {
    return self(f)->real()->pMethods->xCheckReservedLock(self(f)->real(), out);
}
int xFileControl(sqlite3_file* f, int op, void* arg) {
    return self(f)->real()->pMethods->xFileControl(self(f)->real(), op, arg);
}
int xSectorSize(sqlite3_file* f) {
    return self(f)->real()->pMethods->xSectorSize(self(f)->real());
}
int xDeviceCharacteristics(sqlite3_file* f) {
    return self(f)->real()->pMethods->xDeviceCharacteristics(self(f)->real());
}
int xShmMap(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
    return self(f)->real()->pMethods->xShmMap(self(f)->real(), region, size, extend, out);
}
int xShmLock(sqlite3_file* f, int offset, int n, int flags) {
    return self(f)->real()->pMethods->xShmLock(self(f)->real(), offset, n, flags);
}
void xShmBarrier(sqlite3_file* f) {
    self(f)->real()->pMethods->xShmBarrier(self(f)->real());
}
int xShmUnmap(sqlite3_file* f, int deleteFlag) {
    return self(f)->real()->pMethods->xShmUnmap(self(f)->real(), deleteFlag);
}
int xFetch(sqlite3_file* f, sqlite3_int64 offset, int n, void** out) {
    return self(f)->real()->pMethods->xFetch(self(f)->real(), offset, n, out);
}
int xUnfetch(sqlite3_file* f, sqlite3_int64 offset, void* p) {
    return self(f)->real()->pMethods->xUnfetch(self(f)->real(), offset, p);
}

const sqlite3_io_methods kMethods = {
    3,
    xClose,
    xRead,
    xWrite,
    xTruncate,
    xSync,
    xFileSize,
    xLock,
    xUnlock,
    xCheckReservedLock,
    xFileControl,
    xSectorSize,
    xDeviceCharacteristics,
    xShmMap,
    xShmLock,
    xShmBarrier,
    xShmUnmap,
    xFetch,
    xUnfetch,
};

int xOpen(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    auto* wrapper = self(file);
    wrapper->header.pMethods = nullptr;
    const int rc = base->xOpen(base, name, wrapper->real(), flags, outFlags);
    if (rc == SQLITE_OK && wrapper->real()->pMethods != nullptr) {
        wrapper->header.pMethods = &kMethods;
    }
    return rc;
}

}  // namespace

const std::string& FaultVfs::name() {
    static const std::string registered = [] {
        base = sqlite3_vfs_find(nullptr);
        faultVfs = *base;
        faultVfs.zName = "orvik-fault";
        faultVfs.szOsFile = static_cast<int>(sizeof(FaultFile)) + base->szOsFile;
        faultVfs.xOpen = xOpen;
        faultVfs.pNext = nullptr;
        sqlite3_vfs_register(&faultVfs, 0);
        return std::string(faultVfs.zName);
    }();
    return registered;
}

void FaultVfs::arm(Target kind, int n) {
    (void)name();
    hasFired = false;
    remaining = n;
    target = static_cast<int>(kind);
}

void FaultVfs::disarm() {
    target = -1;
}

bool FaultVfs::fired() {
    return hasFired.load();
}

}  // namespace orvik::test
