// The "commit" failpoint's SQLite VFS: the default VFS with one change, the process kills
// itself right after the first write to a main database file (during COMMIT, with the
// rollback journal on disk and the database half written).
#pragma once

namespace kelsim {

// Registers the VFS when KELSIM_FAILPOINT is "commit" and returns its name; null otherwise
// (the default VFS is used).
const char *commitFailpointVfs();

} // namespace kelsim
