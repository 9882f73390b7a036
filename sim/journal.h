// The journal's text form: one line per pass-through call, as "kelsim journal" prints it.
#pragma once

#include "state_store.h"

#include <string>

namespace kelsim {

// "<seq> <Function> ctl=<c> <pd|ld>=<n> if=<i> dir=<d> ata=<a> cdb=<hex> len=<n> status=<s> sense=<KK/AA/QQ|->";
// a control set with kelsim on a drive: "<seq> kelsim <control and values> ctl=<c> pd=<n>".
std::string formatJournalLine(int64_t seq, const JournalEntry &entry);

} // namespace kelsim
