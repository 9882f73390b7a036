// The farm's persistent state in one SQLite database in the state folder: sparse drive
// blocks, per-drive settings, the pass-through journal and the scripted faults.
#pragma once

#include "device.h"
#include "journal.h"
#include "journal_tail.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace kelsim {

// A fault scripted by "kelsim fault", used up by the next matching library call.
struct ScriptedFault {
    std::string kind;   // "pass-status", "init-fail", "no-controller", ...
    uint32_t value = 0; // the status of pass-status, the error code of the others
    std::vector<uint8_t> detail;
};

class StateStore {
  public:
    explicit StateStore(std::string stateDir);
    ~StateStore();
    StateStore(const StateStore &) = delete;
    StateStore &operator=(const StateStore &) = delete;

    const std::string &stateDir() const { return stateDir_; }
    // Opens (and on first use creates) the database; cheap once open.
    bool open();
    void close();
    // False once a statement failed inside the running transaction.
    bool healthy() const { return healthy_; }
    const std::string &lastError() const { return lastError_; }

    bool begin(bool write);
    bool commit();
    void rollback();
    bool inTransaction() const { return inTransaction_; }

    // Sparse blocks of one drive: an unwritten block reads as zeros.
    bool readBlocks(int64_t drive, uint64_t lba, uint32_t count, uint8_t *out);
    bool writeBlocks(int64_t drive, uint64_t lba, uint32_t count, const uint8_t *in);
    uint64_t storedBlockCount(int64_t drive);
    // The LBAs of a drive's stored (non-zero) blocks, in order, appended to lbas.
    bool storedLbas(int64_t drive, std::vector<uint64_t> *lbas);

    bool getSetting(int64_t drive, const std::string &key, std::string *value);
    bool setSetting(int64_t drive, const std::string &key, const std::string &value);

    // A row in the journal table, after the rows waiting in the tail.
    bool appendJournal(const JournalEntry &entry);
    // The row of a call that changed nothing in the database (changedInTransaction() false):
    // appended to the tail file, which costs no database write; in the table when the tail
    // will not take it.
    bool appendJournalToTail(const JournalEntry &entry);
    // Whether a statement of the running transaction inserted, changed or deleted a row.
    bool changedInTransaction() const;
    // The table's rows, then the tail's, numbered as they will be in the table.
    bool readJournal(const std::function<void(int64_t seq, const JournalEntry &)> &visit);
    bool clearJournal();

    // The marker file lets calls that never touch blocks skip the database when no fault
    // is scripted, which is nearly always.
    bool faultsMayBePending() const;
    bool addFault(const ScriptedFault &fault, int count);
    bool takeFault(const std::string &kind, ScriptedFault *fault);
    bool listFaults(const std::function<void(const ScriptedFault &, int remaining)> &visit);
    bool clearFaults();

    // Drops every block, setting, journal row and fault.
    bool wipe();

  private:
    enum Statement {
        kReadBlocks,
        kDeleteBlocks,
        kInsertBlock,
        kCountBlocks,
        kGetSetting,
        kSetSetting,
        kAppendJournal,
        kReadJournal,
        kClearJournal,
        kAddFault,
        kFirstFault,
        kUseFault,
        kDropFault,
        kAnyFault,
        kListFaults,
        kClearFaults,
        kListBlockLbas,
        kBegin,
        kBeginImmediate,
        kCommit,
        kRollback,
        kStatementCount
    };
    sqlite3_stmt *statement(Statement which);
    bool exec(const char *sql);
    // BEGIN, COMMIT and ROLLBACK as statements prepared once rather than text parsed per call.
    bool control(Statement which);
    bool eraseBlocks(int64_t drive, uint64_t from, uint64_t to);
    int schemaVersion();
    bool ensureSchema(bool write);
    bool failWith(const char *what);
    bool stepDone(sqlite3_stmt *stmt, const char *what);
    bool insertJournalRow(const JournalEntry &entry);
    TailMark tailMark();
    bool setTailMark(const TailMark &mark);
    bool foldJournalTail();
    bool dropJournalTail();
    std::string markerPath() const;

    std::string stateDir_;
    sqlite3 *db_ = nullptr;
    sqlite3_stmt *statements_[kStatementCount] = {};
    bool inTransaction_ = false;
    bool schemaReady_ = false;
    bool healthy_ = true;
    std::string lastError_;
    int64_t changesAtBegin_ = 0;
    bool tailMarkMoved_ = false; // by this transaction: the mark read is not the committed one
    JournalTail tail_;
};

// RAII transaction: rolls back unless committed.
class StoreTransaction {
  public:
    StoreTransaction(StateStore &store, bool write) : store_(store), active_(store.begin(write)) {}
    ~StoreTransaction() {
        if (active_) {
            store_.rollback();
        }
    }
    StoreTransaction(const StoreTransaction &) = delete;
    StoreTransaction &operator=(const StoreTransaction &) = delete;
    bool active() const { return active_; }
    // Commits when every statement succeeded, else rolls back; true when committed.
    bool commit() {
        if (!active_) {
            return false;
        }
        active_ = false;
        if (!store_.healthy()) {
            store_.rollback();
            return false;
        }
        return store_.commit();
    }

  private:
    StateStore &store_;
    bool active_;
};

// A drive's medium and settings kept in the store under the drive's key.
class StoredMedium : public Medium {
  public:
    StoredMedium(StateStore &store, int64_t drive) : store_(store), drive_(drive) {}
    void read(uint64_t lba, uint32_t count, uint8_t *out) override { store_.readBlocks(drive_, lba, count, out); }
    void write(uint64_t lba, uint32_t count, const uint8_t *in) override { store_.writeBlocks(drive_, lba, count, in); }

  private:
    StateStore &store_;
    int64_t drive_;
};

class StoredSettings : public DriveSettings {
  public:
    StoredSettings(StateStore &store, int64_t drive) : store_(store), drive_(drive) {}
    bool get(const std::string &key, std::string *value) override { return store_.getSetting(drive_, key, value); }
    void set(const std::string &key, const std::string &value) override { store_.setSetting(drive_, key, value); }

  private:
    StateStore &store_;
    int64_t drive_;
};

} // namespace kelsim
