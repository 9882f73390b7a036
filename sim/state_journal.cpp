// The journal of the state store: the table, and the tail file (journal_tail.h) whose rows
// the next writing transaction folds into it. The tail's mark, how far its file is in the
// table, is a setting of the store's own, so that a fold commits or rolls back with it.
#include "state_store.h"
#include "state_store_internal.h"

namespace kelsim {
using namespace store_detail;
namespace {

// The settings key of the store itself, apart from drives and logical drives.
constexpr int64_t kStoreOwnKey = -1000000;
constexpr const char *kTailMarkKey = "journal.tail";

void bindOptional(sqlite3_stmt *stmt, int index, bool present, int64_t value) {
    if (present) {
        sqlite3_bind_int64(stmt, index, value);
    } else {
        sqlite3_bind_null(stmt, index);
    }
}

} // namespace

TailMark StateStore::tailMark() {
    std::string text;
    return getSetting(kStoreOwnKey, kTailMarkKey, &text) ? JournalTail::parseMark(text) : TailMark{};
}

bool StateStore::setTailMark(const TailMark &mark) {
    tailMarkMoved_ = true;
    return setSetting(kStoreOwnKey, kTailMarkKey, JournalTail::formatMark(mark));
}

// The tail's rows not yet in the table go in, in order, and the mark moves past them. A
// file the committed mark covers entirely goes: its rows are in the table for good.
bool StateStore::foldJournalTail() {
    const TailMark folded = tailMark();
    std::vector<JournalEntry> waiting;
    TailMark end;
    if (!tail_.readPast(folded, &waiting, &end)) {
        healthy_ = false;
        lastError_ = "cannot read journal.tail";
        return false;
    }
    if (waiting.empty()) {
        if (end.id != 0 && end.id == folded.id && !tailMarkMoved_) {
            tail_.remove();
        }
        return true;
    }
    for (const JournalEntry &entry : waiting) {
        if (!insertJournalRow(entry)) {
            return false;
        }
    }
    return setTailMark(end);
}

// Every row of the tail counts as in the table (which is being emptied); the next call
// to use the tail starts a new file.
bool StateStore::dropJournalTail() {
    std::vector<JournalEntry> waiting;
    TailMark end;
    return tail_.readPast(tailMark(), &waiting, &end) && (end.id == 0 || setTailMark(end));
}

bool StateStore::appendJournal(const JournalEntry &entry) {
    return foldJournalTail() && insertJournalRow(entry);
}

bool StateStore::appendJournalToTail(const JournalEntry &entry) {
    return tail_.append(entry, tailMark()) || appendJournal(entry);
}

bool StateStore::insertJournalRow(const JournalEntry &entry) {
    sqlite3_stmt *stmt = statement(kAppendJournal);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    sqlite3_bind_text(stmt, 1, entry.function.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(stmt, 2, entry.hasRequest ? 1 : 0);
    bindOptional(stmt, 3, entry.hasRequest, entry.interfaceType);
    bindOptional(stmt, 4, entry.hasRequest, entry.targetKind);
    bindOptional(stmt, 5, entry.hasRequest, entry.controllerNo);
    bindOptional(stmt, 6, entry.hasRequest, entry.driveNo);
    bindOptional(stmt, 7, entry.hasRequest, entry.direction);
    bindOptional(stmt, 8, entry.hasRequest, entry.ataCommandFlag);
    bindBlob(stmt, 9, entry.cdb);
    sqlite3_bind_int64(stmt, 10, entry.dataLength);
    sqlite3_bind_int(stmt, 11, entry.status);
    bindOptional(stmt, 12, entry.hasSense, entry.senseKey);
    bindOptional(stmt, 13, entry.hasSense, entry.asc);
    bindOptional(stmt, 14, entry.hasSense, entry.ascq);
    return stepDone(stmt, "append journal");
}

bool StateStore::readJournal(const std::function<void(int64_t seq, const JournalEntry &)> &visit) {
    sqlite3_stmt *stmt = statement(kReadJournal);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    int64_t last = 0;
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        JournalEntry entry;
        auto column = [stmt](int i) { return sqlite3_column_int64(stmt, i); };
        entry.function = reinterpret_cast<const char *>(sqlite3_column_text(stmt, 1));
        entry.hasRequest = column(2) != 0;
        entry.interfaceType = static_cast<uint32_t>(column(3));
        entry.targetKind = static_cast<uint32_t>(column(4));
        entry.controllerNo = static_cast<uint8_t>(column(5));
        entry.driveNo = static_cast<uint8_t>(column(6));
        entry.direction = static_cast<uint8_t>(column(7));
        entry.ataCommandFlag = static_cast<uint8_t>(column(8));
        entry.cdb = blobColumn(stmt, 9);
        entry.dataLength = static_cast<uint32_t>(column(10));
        entry.status = static_cast<int>(column(11));
        entry.hasSense = sqlite3_column_type(stmt, 12) != SQLITE_NULL;
        entry.senseKey = static_cast<uint8_t>(column(12));
        entry.asc = static_cast<uint8_t>(column(13));
        entry.ascq = static_cast<uint8_t>(column(14));
        last = column(0);
        visit(last, entry);
    }
    if (rc != SQLITE_DONE) {
        return failWith("read journal");
    }
    // The tail's rows get the next numbers when they are folded into the table.
    std::vector<JournalEntry> waiting;
    TailMark end;
    if (!tail_.readPast(tailMark(), &waiting, &end)) {
        healthy_ = false;
        lastError_ = "cannot read journal.tail";
        return false;
    }
    for (const JournalEntry &entry : waiting) {
        visit(++last, entry);
    }
    return true;
}

bool StateStore::clearJournal() {
    sqlite3_stmt *stmt = statement(kClearJournal);
    if (stmt == nullptr) {
        return false;
    }
    StatementUse use(stmt);
    return stepDone(stmt, "clear journal") && dropJournalTail();
}

} // namespace kelsim
