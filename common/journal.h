// The journal of pass-through calls: one entry per call and its text form, as "kelsim journal"
// prints it and the SG_IO back end writes it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelsim {

// One pass-through call as the journal keeps it.
struct JournalEntry {
    std::string function;
    bool hasRequest = false; // false when the request pointer was null
    uint32_t interfaceType = 0;
    uint32_t targetKind = 0;
    uint8_t controllerNo = 0;
    uint8_t driveNo = 0;
    uint8_t direction = 0;
    uint8_t ataCommandFlag = 0;
    std::vector<uint8_t> cdb; // cdbLength bytes, at most 16
    uint32_t dataLength = 0;
    int status = 0;
    bool hasSense = false;
    uint8_t senseKey = 0, asc = 0, ascq = 0;
};

// "<seq> <Function> ctl=<c> <pd|ld>=<n> if=<i> dir=<d> ata=<a> cdb=<hex> len=<n> status=<s> sense=<KK/AA/QQ|->";
// a control set with kelsim on a drive: "<seq> kelsim <control and values> ctl=<c> pd=<n>".
std::string formatJournalLine(int64_t seq, const JournalEntry &entry);

} // namespace kelsim
