// The journal's tail: rows of pass-through calls that changed nothing in the database,
// appended to a file of the state folder ("journal.tail") rather than costing a database
// write of their own. The next transaction that writes folds them into the journal table
// ahead of its own rows, and readers of the journal read them after the table's rows.
// Every access happens inside a store transaction, whose lock keeps the rows in call order.
#pragma once

#include "journal.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelsim {

// How far the tail file with this id is in the journal table (kept in the database, so
// that a fold and its mark commit or roll back together). id 0: no file folded yet.
struct TailMark {
    uint64_t id = 0;
    uint64_t offset = 0;
};

class JournalTail {
  public:
    explicit JournalTail(std::string path) : path_(std::move(path)) {}

    // Appends one entry. false (nothing written) when the entry does not fit a record, the
    // tail has grown long enough to be folded, or the file cannot be written: the caller
    // then puts the entry in the table. A file that `folded` (the committed mark) covers
    // entirely is replaced by a new one first.
    bool append(const JournalEntry &entry, const TailMark &folded);
    // The entries past the mark, in order, and the mark that covers them; false when the
    // file exists but cannot be read.
    bool readPast(const TailMark &folded, std::vector<JournalEntry> *entries, TailMark *end) const;

    // Removes the file (once the committed mark covers all of it).
    void remove() const;

    // The mark as the database keeps it, and back.
    static std::string formatMark(const TailMark &mark);
    static TailMark parseMark(const std::string &text);

  private:
    std::string path_;
};

} // namespace kelsim
