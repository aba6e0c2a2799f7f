// A VFS over SQLite's default one that fails the Nth write or sync with an I/O
// error, so that tests can prove a store survives a disk that fails underneath.
// Open a pool with PoolOptions::vfs = FaultVfs::name().
#pragma once

#include <string>

namespace orvik::test {

class FaultVfs {
  public:
    enum class Target { write, sync };

    // Registers the VFS once (not as the default); returns its name.
    static const std::string& name();

    // The Nth (1-based) write or sync from now on, of any file opened through this
    // VFS, fails with SQLITE_IOERR_WRITE or SQLITE_IOERR_FSYNC. Fires once.
    static void arm(Target target, int n);
    static void disarm();
    [[nodiscard]] static bool fired();
};

}  // namespace orvik::test
