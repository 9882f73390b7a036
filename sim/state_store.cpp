// The farm's SQLite state: schema, prepared statements, transactions, sparse blocks,
// drive settings, the journal and the scripted faults.
#include "state_store.h"

#include "failpoint.h"
#include "failpoint_vfs.h"
#include "state_store_internal.h"

#include <sqlite3.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace kelsim {
using namespace store_detail;
namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 10000;

// Every connection: the journal mode, no fsync (a killed process loses nothing the
// system already has), and a page cache of 128 KiB: enough for the pages one call of
// 64 KiB changes, and full after the first such call, so that a long transfer costs the
// same per byte all the way instead of growing the cache page by page up to its bound.
const char *const kJournalMode = "PRAGMA journal_mode=TRUNCATE";
const char *const kConnectionSettings = "PRAGMA synchronous=OFF; PRAGMA cache_size=-128;";
const char *const kNewDatabaseSettings = "PRAGMA page_size=4096;";

const char *const kSchema = R"(
CREATE TABLE IF NOT EXISTS block(
    drive INTEGER NOT NULL,
    lba INTEGER NOT NULL,
    data BLOB NOT NULL,
    PRIMARY KEY(drive, lba)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS setting(
    drive INTEGER NOT NULL,
    key TEXT NOT NULL,
    value TEXT NOT NULL,
    PRIMARY KEY(drive, key)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS journal(
    seq INTEGER PRIMARY KEY,
    function TEXT NOT NULL,
    has_request INTEGER NOT NULL,
    interface_type INTEGER, target_kind INTEGER, controller INTEGER, drive INTEGER,
    direction INTEGER, ata_flag INTEGER,
    cdb BLOB NOT NULL,
    data_length INTEGER NOT NULL,
    status INTEGER NOT NULL,
    sense_key INTEGER, asc INTEGER, ascq INTEGER);
CREATE TABLE IF NOT EXISTS fault(
    id INTEGER PRIMARY KEY,
    kind TEXT NOT NULL,
    value INTEGER NOT NULL,
    detail BLOB NOT NULL,
    remaining INTEGER NOT NULL);
)";

const char *const kStatementText[] = {
    "SELECT lba, data FROM block WHERE drive = ?1 AND lba >= ?2 AND lba < ?3",
    "DELETE FROM block WHERE drive = ?1 AND lba >= ?2 AND lba < ?3",
    "INSERT INTO block(drive, lba, data) VALUES(?1, ?2, ?3) ON CONFLICT(drive, lba) DO UPDATE SET data = excluded.data",
    "SELECT count(*) FROM block WHERE drive = ?1",
    "SELECT value FROM setting WHERE drive = ?1 AND key = ?2",
    "INSERT OR REPLACE INTO setting(drive, key, value) VALUES(?1, ?2, ?3)",
    "INSERT INTO journal(function, has_request, interface_type, target_kind, controller, drive, direction, ata_flag,"
    " cdb, data_length, status, sense_key, asc, ascq) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13,"
    " ?14)",
    "SELECT seq, function, has_request, interface_type, target_kind, controller, drive, direction, ata_flag, cdb,"
    " data_length, status, sense_key, asc, ascq FROM journal ORDER BY seq",
    "DELETE FROM journal",
    "INSERT INTO fault(kind, value, detail, remaining) VALUES(?1, ?2, ?3, ?4)",
    "SELECT id, value, detail, remaining FROM fault WHERE kind = ?1 ORDER BY id LIMIT 1",
    "UPDATE fault SET remaining = remaining - 1 WHERE id = ?1",
    "DELETE FROM fault WHERE id = ?1",
    "SELECT 1 FROM fault LIMIT 1",
    "SELECT kind, value, detail, remaining FROM fault ORDER BY id",
    "DELETE FROM fault",
    "SELECT lba FROM block WHERE drive = ?1 ORDER BY lba",
    "BEGIN",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
};

bool isAllZero(const uint8_t *block) {
    static const uint8_t zeros[kBlockSize] = {};
    return memcmp(block, zeros, kBlockSize) == 0;
}

} // namespace

static_assert(sizeof(kStatementText) / sizeof(kStatementText[0]) == 21, "one text per statement");

StateStore::StateStore(std::string stateDir) : stateDir_(std::move(stateDir)), tail_(stateDir_ + "/journal.tail") {}

bool StateStore::changedInTransaction() const {
    return db_ != nullptr && sqlite3_total_changes64(db_) != changesAtBegin_;
}

StateStore::~StateStore() {
    close();
}

void StateStore::close() {
    if (inTransaction_) {
        rollback();
    }
    for (auto &stmt : statements_) {
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
    if (db_ != nullptr) {
        sqlite3_close(db_);
        db_ = nullptr;
    }
    schemaReady_ = false;
}

bool StateStore::failWith(const char *what) {
    healthy_ = false;
    lastError_ = std::string(what) + ": " + (db_ != nullptr ? sqlite3_errmsg(db_) : "database not open");
    return false;
}

bool StateStore::exec(const char *sql) {
    char *message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
        healthy_ = false;
        lastError_ = message != nullptr ? message : "unknown error";
        sqlite3_free(message);
        return false;
    }
    return true;
}

// SQLite is linked into the sim alone, so its process-wide settings are ours: a run is
// short and opens one connection, so memory set aside in advance (the lookaside slots,
// a first batch of cache pages) would cost more page faults than it saves mallocs.
namespace {
void configureSqliteOnce() {
    static const bool configured = [] {
        sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
        sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        return true;
    }();
    (void)configured;
}
} // namespace

bool StateStore::open() {
    if (db_ != nullptr) {
        return true;
    }
    configureSqliteOnce();
    std::string path = stateDir_ + "/state.db";
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        commitFailpointVfs()) != SQLITE_OK) {
        failWith("open state.db");
        sqlite3_close(db_);
        db_ = nullptr;
        return false;
    }
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    // A rollback journal, emptied at every commit, and no syncs: a killed run leaves the
    // journal behind and the next run puts the database back as it was before the
    // call. A farm kept in WAL mode by an earlier version is switched over by the first
    // run that has it to itself; until then the WAL goes on working.
    sqlite3_exec(db_, kJournalMode, nullptr, nullptr, nullptr);
    if (!exec(kConnectionSettings)) {
        close();
        return false;
    }
    return true;
}

int StateStore::schemaVersion() {
    sqlite3_stmt *stmt = nullptr;
    int version = -1;
    if (sqlite3_prepare_v2(db_, "PRAGMA user_version", -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        version = sqlite3_column_int(stmt, 0);
    }
    sqlite3_finalize(stmt);
    return version;
}

// Called inside the first transaction, so that checking the schema takes no lock of its
// own; the schema is only built the first time (a read transaction makes way for a write
// one to build it).
bool StateStore::ensureSchema(bool write) {
    // The schema is built in one transaction with its last table: that table being there
    // (a look at the schema SQLite has just read, no statement to compile) says it all.
    if (sqlite3_table_column_metadata(db_, "main", "fault", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr) ==
        SQLITE_OK) {
        schemaReady_ = true;
        return true;
    }
    int version = schemaVersion();
    if (version == kSchemaVersion) {
        schemaReady_ = true;
        return true;
    }
    if (version < 0) {
        return failWith("read schema version");
    }
    if (!write) {
        exec("ROLLBACK");
        if (!exec("BEGIN IMMEDIATE") || !ensureSchema(true) || !exec("COMMIT")) {
            exec("ROLLBACK");
            return false;
        }
        return exec("BEGIN");
    }
    // The page size only takes on a database that is still empty.
    std::string build = std::string(kNewDatabaseSettings) + kSchema;
    build += "PRAGMA user_version=" + std::to_string(kSchemaVersion);
    if (!exec(build.c_str())) {
        return false;
    }
    schemaReady_ = true;
    return true;
}

sqlite3_stmt *StateStore::statement(Statement which) {
    if (!open()) {
        return nullptr;
    }
    if (statements_[which] == nullptr && sqlite3_prepare_v3(db_, kStatementText[which], -1, SQLITE_PREPARE_PERSISTENT,
                                                            &statements_[which], nullptr) != SQLITE_OK) {
        failWith("prepare");
        return nullptr;
    }
    return statements_[which];
}

bool StateStore::control(Statement which) {
    sqlite3_stmt *stmt = statement(which);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        healthy_ = false;
        lastError_ = sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

bool StateStore::stepDone(sqlite3_stmt *stmt, const char *what) {
    if (sqlite3_step(stmt) != SQLITE_DONE) {
        return failWith(what);
    }
    return true;
}

bool StateStore::begin(bool write) {
    if (!open()) {
        return false;
    }
    healthy_ = true;
    lastError_.clear();
    if (!control(write ? kBeginImmediate : kBegin)) {
        return false;
    }
    changesAtBegin_ = sqlite3_total_changes64(db_);
    tailMarkMoved_ = false;
    if (!schemaReady_ && !ensureSchema(write)) {
        control(kRollback);
        return false;
    }
    inTransaction_ = true;
    return true;
}

bool StateStore::commit() {
    failpoint(failpoint_step::kBeforeCommit);
    inTransaction_ = false;
    if (!control(kCommit)) {
        rollback(); // keeps the commit's error (a full disk, say) as the one reported
        return false;
    }
    return true;
}

void StateStore::rollback() {
    inTransaction_ = false;
    if (db_ != nullptr && !sqlite3_get_autocommit(db_)) {
        const bool healthy = healthy_;
        const std::string error = lastError_;
        control(kRollback);
        healthy_ = healthy; // the failure that led here is the one reported
        lastError_ = error;
    }
}

bool StateStore::readBlocks(int64_t drive, uint64_t lba, uint32_t count, uint8_t *out) {
    memset(out, 0, static_cast<size_t>(count) * kBlockSize);
    sqlite3_stmt *stmt = statement(kReadBlocks);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    sqlite3_bind_int64(stmt, 1, drive);
    sqlite3_bind_int64(stmt, 2, static_cast<int64_t>(lba));
    sqlite3_bind_int64(stmt, 3, static_cast<int64_t>(lba + count));
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        uint64_t at = static_cast<uint64_t>(sqlite3_column_int64(stmt, 0));
        const void *data = sqlite3_column_blob(stmt, 1);
        int size = sqlite3_column_bytes(stmt, 1);
        if (at >= lba && at < lba + count && size == static_cast<int>(kBlockSize) && data != nullptr) {
            memcpy(out + (at - lba) * kBlockSize, data, kBlockSize);
        }
    }
    return rc == SQLITE_DONE || failWith("read blocks");
}

bool StateStore::eraseBlocks(int64_t drive, uint64_t from, uint64_t to) {
    sqlite3_stmt *erase = statement(kDeleteBlocks);
    if (erase == nullptr) {
        return false;
    }
    StatementUse use(erase);
    sqlite3_bind_int64(erase, 1, drive);
    sqlite3_bind_int64(erase, 2, static_cast<int64_t>(from));
    sqlite3_bind_int64(erase, 3, static_cast<int64_t>(to));
    return stepDone(erase, "write blocks");
}

// Zero blocks are not stored, so the table stays as sparse as the data written. A
// non-zero block replaces its row where it is (no range is emptied first, which would
// make SQLite take the B-tree apart and build it again); a run of zero blocks removes
// the rows of its range.
bool StateStore::writeBlocks(int64_t drive, uint64_t lba, uint32_t count, const uint8_t *in) {
    sqlite3_stmt *insert = statement(kInsertBlock);
    if (insert == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < count;) {
        const uint8_t *block = in + static_cast<size_t>(i) * kBlockSize;
        if (isAllZero(block)) {
            uint32_t end = i + 1;
            while (end < count && isAllZero(in + static_cast<size_t>(end) * kBlockSize)) {
                end++;
            }
            if (!eraseBlocks(drive, lba + i, lba + end)) {
                return false;
            }
            i = end;
            continue;
        }
        sqlite3_bind_int64(insert, 1, drive);
        sqlite3_bind_int64(insert, 2, static_cast<int64_t>(lba + i));
        sqlite3_bind_blob(insert, 3, block, kBlockSize, SQLITE_STATIC);
        bool stored = stepDone(insert, "write blocks");
        sqlite3_reset(insert);
        if (!stored) {
            return false;
        }
        i++;
    }
    failpoint(failpoint_step::kMidWrite);
    return true;
}

uint64_t StateStore::storedBlockCount(int64_t drive) {
    sqlite3_stmt *stmt = statement(kCountBlocks);
    if (stmt == nullptr) {
        return 0;
    }
    StatementUse use(stmt);
    sqlite3_bind_int64(stmt, 1, drive);
    return sqlite3_step(stmt) == SQLITE_ROW ? static_cast<uint64_t>(sqlite3_column_int64(stmt, 0)) : 0;
}

bool StateStore::storedLbas(int64_t drive, std::vector<uint64_t> *lbas) {
    sqlite3_stmt *stmt = statement(kListBlockLbas);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    sqlite3_bind_int64(stmt, 1, drive);
    int step;
    while ((step = sqlite3_step(stmt)) == SQLITE_ROW) {
        lbas->push_back(static_cast<uint64_t>(sqlite3_column_int64(stmt, 0)));
    }
    return step == SQLITE_DONE;
}

bool StateStore::getSetting(int64_t drive, const std::string &key, std::string *value) {
    sqlite3_stmt *stmt = statement(kGetSetting);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    sqlite3_bind_int64(stmt, 1, drive);
    sqlite3_bind_text(stmt, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        const unsigned char *text = sqlite3_column_text(stmt, 0);
        int size = sqlite3_column_bytes(stmt, 0);
        value->assign(reinterpret_cast<const char *>(text), static_cast<size_t>(size));
        return true;
    }
    if (rc != SQLITE_DONE) {
        failWith("read setting");
    }
    return false;
}

bool StateStore::setSetting(int64_t drive, const std::string &key, const std::string &value) {
    sqlite3_stmt *stmt = statement(kSetSetting);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    sqlite3_bind_int64(stmt, 1, drive);
    sqlite3_bind_text(stmt, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
    sqlite3_bind_text(stmt, 3, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    return stepDone(stmt, "write setting");
}

std::string StateStore::markerPath() const {
    return stateDir_ + "/faults.pending";
}

bool StateStore::faultsMayBePending() const {
    return access(markerPath().c_str(), F_OK) == 0;
}

bool StateStore::addFault(const ScriptedFault &fault, int count) {
    sqlite3_stmt *stmt = statement(kAddFault);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    sqlite3_bind_text(stmt, 1, fault.kind.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(stmt, 2, fault.value);
    bindBlob(stmt, 3, fault.detail);
    sqlite3_bind_int(stmt, 4, count);
    if (!stepDone(stmt, "add fault")) {
        return false;
    }
    // The marker is made while the write lock is held, so a consumer that finds the
    // table empty and removes the marker cannot race with this insertion.
    int fd = ::open(markerPath().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        healthy_ = false;
        lastError_ = "cannot create " + markerPath() + ": " + strerror(errno);
        return false;
    }
    ::close(fd);
    return true;
}

bool StateStore::takeFault(const std::string &kind, ScriptedFault *fault) {
    sqlite3_stmt *first = statement(kFirstFault);
    sqlite3_stmt *use = statement(kUseFault);
    sqlite3_stmt *drop = statement(kDropFault);
    sqlite3_stmt *any = statement(kAnyFault);
    if (first == nullptr || use == nullptr || drop == nullptr || any == nullptr) {
        return false;
    }
    bool found = false;
    int64_t id = 0;
    int remaining = 0;
    {
        StatementUse firstUse(first);
        sqlite3_bind_text(first, 1, kind.c_str(), -1, SQLITE_STATIC);
        int rc = sqlite3_step(first);
        if (rc == SQLITE_ROW) {
            found = true;
            id = sqlite3_column_int64(first, 0);
            fault->kind = kind;
            fault->value = static_cast<uint32_t>(sqlite3_column_int64(first, 1));
            fault->detail = blobColumn(first, 2);
            remaining = sqlite3_column_int(first, 3);
        } else if (rc != SQLITE_DONE) {
            return failWith("take fault");
        }
    }
    if (found) {
        sqlite3_stmt *change = remaining > 1 ? use : drop;
        StatementUse changeUse(change);
        sqlite3_bind_int64(change, 1, id);
        if (!stepDone(change, "take fault")) {
            return false;
        }
    }
    StatementUse anyUse(any);
    int rc = sqlite3_step(any);
    if (rc == SQLITE_DONE) {
        unlink(markerPath().c_str());
    } else if (rc != SQLITE_ROW) {
        return failWith("take fault");
    }
    return found;
}

bool StateStore::listFaults(const std::function<void(const ScriptedFault &, int remaining)> &visit) {
    sqlite3_stmt *stmt = statement(kListFaults);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        ScriptedFault fault;
        fault.kind = reinterpret_cast<const char *>(sqlite3_column_text(stmt, 0));
        fault.value = static_cast<uint32_t>(sqlite3_column_int64(stmt, 1));
        fault.detail = blobColumn(stmt, 2);
        visit(fault, sqlite3_column_int(stmt, 3));
    }
    return rc == SQLITE_DONE || failWith("list faults");
}

bool StateStore::clearFaults() {
    sqlite3_stmt *stmt = statement(kClearFaults);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    if (!stepDone(stmt, "clear faults")) {
        return false;
    }
    unlink(markerPath().c_str());
    return true;
}

bool StateStore::wipe() {
    if (!begin(true)) {
        return false;
    }
    if (!exec("DELETE FROM block; DELETE FROM setting; DELETE FROM journal; DELETE FROM fault;") ||
        !dropJournalTail()) {
        rollback();
        return false;
    }
    unlink(markerPath().c_str());
    if (!commit()) {
        return false;
    }
    // Give the space back; another process holding the database open only delays this.
    sqlite3_exec(db_, "VACUUM", nullptr, nullptr, nullptr);
    return true;
}

} // namespace kelsim
