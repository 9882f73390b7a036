// The journal's text form.
#include "journal.h"

#include <cstdio>

namespace kelsim {

std::string formatJournalLine(int64_t seq, const JournalEntry &entry) {
    char field[64];
    std::string line = std::to_string(seq) + " " + entry.function;
    // What a person set with kelsim on one drive: the control and the drive, nothing more.
    if (entry.function.compare(0, 7, "kelsim ") == 0) {
        snprintf(field, sizeof field, " ctl=%u pd=%u", entry.controllerNo, entry.driveNo);
        return line + field;
    }
    if (entry.hasRequest) {
        const char *target = entry.targetKind == 1 ? "ld" : "pd";
        snprintf(field, sizeof field, " ctl=%u %s=%u if=%u dir=%u ata=%u cdb=", entry.controllerNo, target,
                 entry.driveNo, entry.interfaceType, entry.direction, entry.ataCommandFlag);
        line += field;
    } else {
        // A call without a request has nothing to show but its length and status.
        line += " ctl=- pd=- if=- dir=- ata=- cdb=";
    }
    for (size_t i = 0; i < entry.cdb.size(); i++) {
        snprintf(field, sizeof field, i == 0 ? "%02X" : " %02X", entry.cdb[i]);
        line += field;
    }
    snprintf(field, sizeof field, " len=%u status=%d sense=", entry.dataLength, entry.status);
    line += field;
    if (entry.hasSense) {
        snprintf(field, sizeof field, "%02X/%02X/%02X", entry.senseKey, entry.asc, entry.ascq);
        line += field;
    } else {
        line += "-";
    }
    return line;
}

} // namespace kelsim
