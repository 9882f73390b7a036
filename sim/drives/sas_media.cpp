// The SAS drive's long blocks and media errors: the media-error marks kept in the drive's
// settings, READ LONG and WRITE LONG (data plus check bytes), and SEND DIAGNOSTIC /
// RECEIVE DIAGNOSTIC RESULTS.
#include "sas_drive_internal.h"
#include "sas_life.h"
#include "text_fields.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <set>

namespace kelsim {
namespace sas {
namespace {

// The check bytes the drive keeps behind each block's data: 8 bytes of hash at a time,
// each hash seeded with the one before.
std::vector<uint8_t> checkBytesOf(const uint8_t *block, uint32_t count) {
    std::vector<uint8_t> check(count + 8);
    uint64_t hash = fnv1a64(block, kBlockSize);
    for (uint32_t at = 0; at < count; at += 8) {
        putBe(&check[at], 8, hash);
        hash = fnv1a64(block, kBlockSize, hash);
    }
    check.resize(count);
    return check;
}

std::set<uint64_t> loadMediaErrors(DriveSettings &settings) {
    std::set<uint64_t> marks;
    std::string text;
    if (!settings.get(kKeyMediaErrors, &text)) {
        return marks;
    }
    const char *cursor = text.c_str();
    while (*cursor != '\0') {
        char *end = nullptr;
        unsigned long long lba = std::strtoull(cursor, &end, 16);
        if (end == cursor) {
            break;
        }
        marks.insert(lba);
        cursor = end;
    }
    return marks;
}

void storeMediaErrors(DriveSettings &settings, const std::set<uint64_t> &marks) {
    std::string text;
    char number[24];
    for (uint64_t lba : marks) {
        std::snprintf(number, sizeof number, "%s%llX", text.empty() ? "" : " ", static_cast<unsigned long long>(lba));
        text += number;
    }
    settings.set(kKeyMediaErrors, text);
}

void markMediaError(DriveSettings &settings, uint64_t lba) {
    std::set<uint64_t> marks = loadMediaErrors(settings);
    if (marks.insert(lba).second) {
        storeMediaErrors(settings, marks);
    }
}

// A long-block command whose byte count is not the long block size: the information field
// holds the requested count minus the real one (negative when too short), and ILI says the
// length was wrong.
ScsiResult wrongLongLength(uint32_t requested, uint32_t longBlock, uint16_t lengthByte) {
    ScsiResult result = invalidFieldInCdb(lengthByte);
    result.sense[2] |= 0x20;
    setInformation(&result, static_cast<uint32_t>(requested - longBlock));
    return result;
}

} // namespace

ScsiResult SasDrive::readLong(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[1] & 0x04) {
        return invalidFieldInCdb(1, 2); // PBLOCK: logical and physical blocks are the same
    }
    const bool correct = (cdb[1] & 0x02) != 0; // CORRCT: give the data even when it is bad
    uint64_t lba = getBe(&cdb[2], 4);
    uint32_t length = static_cast<uint32_t>(getBe(&cdb[7], 2));
    if (!inRange(lba, 1)) {
        return lbaOutOfRange();
    }
    if (length == 0) {
        return ScsiResult{};
    }
    const uint32_t longBlockBytes = identity_.longBlockBytes;
    if (length != longBlockBytes) {
        return wrongLongLength(length, longBlockBytes, 7);
    }
    const bool bad = sasBlockHasMediaError(settings_, lba);
    if (bad && !correct) {
        return mediumError(lba);
    }
    std::vector<uint8_t> longBlock(longBlockBytes);
    medium_.read(lba, 1, longBlock.data());
    std::vector<uint8_t> check = checkBytesOf(longBlock.data(), longBlockBytes - kBlockSize);
    if (bad) {
        for (uint8_t &byte : check) {
            byte = static_cast<uint8_t>(~byte); // what WRITE LONG left no longer matches the data
        }
    }
    std::copy(check.begin(), check.end(), longBlock.begin() + kBlockSize);
    return sendData(request.command, longBlock, length);
}

ScsiResult SasDrive::writeLong(const Request &request) {
    const uint8_t *cdb = request.cdb;
    bool correctionDisabled = cdb[1] & 0x80;
    bool writeUncorrectable = cdb[1] & 0x40;
    if (cdb[1] & 0x20) {
        return invalidFieldInCdb(1, 5); // PBLOCK
    }
    uint64_t lba = getBe(&cdb[2], 4);
    uint32_t length = static_cast<uint32_t>(getBe(&cdb[7], 2));
    if (!inRange(lba, 1)) {
        return lbaOutOfRange();
    }
    if (writeUncorrectable) { // no data: just make the block unreadable
        markMediaError(settings_, lba);
        return ScsiResult{};
    }
    if (length == 0) {
        return ScsiResult{};
    }
    if (length != identity_.longBlockBytes) {
        return wrongLongLength(length, identity_.longBlockBytes, 7);
    }
    const uint8_t *longBlock = hostData(request.command, length);
    if (longBlock == nullptr) {
        return invalidFieldInCdb(7);
    }
    medium_.write(lba, 1, longBlock);
    std::vector<uint8_t> check = checkBytesOf(longBlock, length - kBlockSize);
    bool consistent = std::equal(check.begin(), check.end(), longBlock + kBlockSize);
    if (consistent && !correctionDisabled) {
        sasClearMediaErrors(settings_, lba, 1);
    } else {
        markMediaError(settings_, lba);
    }
    ScsiResult result;
    result.transferred = length;
    return result;
}

// The drive reallocates on write: each marked block in the range takes a spare sector and
// the error history gains a recovered error naming it, 1/0C/01 (write error - recovered
// with auto reallocation). The write itself still ends GOOD: recovered errors are only
// reported when the host asks for them, and nothing here does.
void SasDrive::reassignMarkedBlocks(const Request &request, uint64_t lba, uint64_t count) {
    for (uint64_t bad : sasClearMediaErrors(settings_, lba, count)) {
        countReassignedBlock(settings_);
        ScsiResult recovered = checkCondition(sense::kRecoveredError, kAscWriteError, kAscqAutoReallocated);
        setInformation(&recovered, static_cast<uint32_t>(std::min<uint64_t>(bad, 0xFFFFFFFF)));
        recordCheckCondition(settings_, request.cdb, request.command.cdbLength, bad, recovered);
    }
}

ScsiResult SasDrive::sendDiagnostic(const Request &request) {
    // Self-tests pass at once; a diagnostic page sent with PF is taken and ignored.
    uint32_t length = static_cast<uint32_t>(getBe(&request.cdb[3], 2));
    if (length != 0 && hostData(request.command, length) == nullptr) {
        return invalidFieldInCdb(3);
    }
    ScsiResult result;
    result.transferred = length;
    return result;
}

ScsiResult SasDrive::receiveDiagnosticResults(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if ((cdb[1] & 0x01) && cdb[2] != 0x00) {
        return invalidFieldInCdb(2); // only the supported-pages page
    }
    std::vector<uint8_t> page = {0x00, 0x00, 0x00, 0x01, 0x00};
    return sendData(request.command, page, getBe(&cdb[3], 2));
}

} // namespace sas

bool sasBlockHasMediaError(DriveSettings &settings, uint64_t lba) {
    uint64_t bad = 0;
    return sasFirstMediaError(settings, lba, 1, &bad);
}

bool sasFirstMediaError(DriveSettings &settings, uint64_t lba, uint64_t count, uint64_t *badLba) {
    if (count == 0) {
        return false;
    }
    std::set<uint64_t> marks = sas::loadMediaErrors(settings);
    auto found = marks.lower_bound(lba);
    if (found == marks.end() || *found - lba >= count) {
        return false;
    }
    *badLba = *found;
    return true;
}

std::vector<uint64_t> sasClearMediaErrors(DriveSettings &settings, uint64_t lba, uint64_t count) {
    std::set<uint64_t> marks = sas::loadMediaErrors(settings);
    auto first = marks.lower_bound(lba);
    auto last = first;
    while (last != marks.end() && *last - lba < count) {
        ++last;
    }
    std::vector<uint64_t> cleared(first, last);
    if (first != last) {
        marks.erase(first, last);
        sas::storeMediaErrors(settings, marks);
    }
    return cleared;
}

} // namespace kelsim
