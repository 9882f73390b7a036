// The journal's tail file: a 16-byte header ("KSJTAIL1" and the file's 64-bit id, big
// endian), then one 96-byte record a call, each added with one write.
#include "journal_tail.h"

#include "byte_order.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace kelsim {
namespace {

constexpr char kFileMagic[8] = {'K', 'S', 'J', 'T', 'A', 'I', 'L', '1'};
constexpr char kRecordMagic[4] = {'K', 'J', 'R', '1'};
constexpr size_t kHeaderSize = 16;
constexpr size_t kRecordSize = 96;
constexpr size_t kFunctionBytes = 32;
// Past this many rows the tail is folded by the next call instead of growing.
constexpr off_t kFoldAt = static_cast<off_t>(kHeaderSize + 256 * kRecordSize);

bool encode(const JournalEntry &entry, uint8_t *record) {
    if (entry.function.size() >= kFunctionBytes || entry.cdb.size() > 16) {
        return false;
    }
    memset(record, 0, kRecordSize);
    memcpy(record, kRecordMagic, sizeof kRecordMagic);
    memcpy(&record[4], entry.function.data(), entry.function.size());
    record[36] = entry.hasRequest ? 1 : 0;
    record[37] = entry.controllerNo;
    record[38] = entry.driveNo;
    record[39] = entry.direction;
    record[40] = entry.ataCommandFlag;
    record[41] = static_cast<uint8_t>(entry.cdb.size());
    if (!entry.cdb.empty()) {
        memcpy(&record[42], entry.cdb.data(), entry.cdb.size());
    }
    record[58] = entry.hasSense ? 1 : 0;
    record[59] = entry.senseKey;
    record[60] = entry.asc;
    record[61] = entry.ascq;
    putBe(&record[62], 4, entry.interfaceType);
    putBe(&record[66], 4, entry.targetKind);
    putBe(&record[70], 4, entry.dataLength);
    putBe(&record[74], 4, static_cast<uint32_t>(entry.status));
    return true;
}

bool decode(const uint8_t *record, JournalEntry *entry) {
    if (memcmp(record, kRecordMagic, sizeof kRecordMagic) != 0 || record[41] > 16) {
        return false;
    }
    const char *function = reinterpret_cast<const char *>(&record[4]);
    entry->function.assign(function, strnlen(function, kFunctionBytes));
    entry->hasRequest = record[36] != 0;
    entry->controllerNo = record[37];
    entry->driveNo = record[38];
    entry->direction = record[39];
    entry->ataCommandFlag = record[40];
    entry->cdb.assign(&record[42], &record[42] + record[41]);
    entry->hasSense = record[58] != 0;
    entry->senseKey = record[59];
    entry->asc = record[60];
    entry->ascq = record[61];
    entry->interfaceType = static_cast<uint32_t>(getBe(&record[62], 4));
    entry->targetKind = static_cast<uint32_t>(getBe(&record[66], 4));
    entry->dataLength = static_cast<uint32_t>(getBe(&record[70], 4));
    entry->status = static_cast<int>(static_cast<uint32_t>(getBe(&record[74], 4)));
    return true;
}

// A new file's id: files are made one at a time under the store's lock, so the clock and
// the process id tell them apart.
uint64_t newFileId() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t id = (static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec)) ^
                        (static_cast<uint64_t>(getpid()) << 40);
    return id == 0 ? 1 : id;
}

bool writeAll(int fd, const uint8_t *bytes, size_t size) {
    return write(fd, bytes, size) == static_cast<ssize_t>(size);
}

} // namespace

bool JournalTail::append(const JournalEntry &entry, const TailMark &folded) {
    uint8_t record[kRecordSize];
    if (!encode(entry, record)) {
        return false;
    }
    int fd = open(path_.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
    if (fd >= 0) {
        struct stat status {};
        uint8_t header[kHeaderSize] = {};
        const bool readable = fstat(fd, &status) == 0 && (status.st_size < static_cast<off_t>(kHeaderSize) ||
                                                          pread(fd, header, kHeaderSize, 0) == kHeaderSize);
        if (!readable || status.st_size >= kFoldAt) {
            close(fd);
            return false;
        }
        const bool whole =
            status.st_size >= static_cast<off_t>(kHeaderSize) && memcmp(header, kFileMagic, sizeof kFileMagic) == 0;
        const bool allFolded =
            whole && getBe(&header[8], 8) == folded.id && static_cast<uint64_t>(status.st_size) == folded.offset;
        if (whole && !allFolded) {
            bool written = writeAll(fd, record, kRecordSize);
            if (!written) {
                // A short record (a full disk) is taken back, so that the next one starts
                // where it should; if even that fails, readers stop at the broken record.
                written = ftruncate(fd, status.st_size) != 0 && false;
            }
            close(fd);
            return written;
        }
        // Every row is in the table already (or the file never got its header): start afresh.
        close(fd);
        unlink(path_.c_str());
    }
    fd = open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    uint8_t first[kHeaderSize + kRecordSize];
    memcpy(first, kFileMagic, sizeof kFileMagic);
    putBe(&first[8], 8, newFileId());
    memcpy(&first[kHeaderSize], record, kRecordSize);
    const bool written = writeAll(fd, first, sizeof first);
    close(fd);
    if (!written) {
        unlink(path_.c_str());
    }
    return written;
}

bool JournalTail::readPast(const TailMark &folded, std::vector<JournalEntry> *entries, TailMark *end) const {
    *end = folded;
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return errno == ENOENT;
    }
    std::vector<uint8_t> bytes;
    uint8_t chunk[8192];
    ssize_t got;
    while ((got = read(fd, chunk, sizeof chunk)) > 0) {
        bytes.insert(bytes.end(), chunk, chunk + got);
    }
    close(fd);
    if (got < 0) {
        return false;
    }
    if (bytes.size() < kHeaderSize || memcmp(bytes.data(), kFileMagic, sizeof kFileMagic) != 0) {
        return true; // a file that never got its header holds no row
    }
    const uint64_t id = getBe(&bytes[8], 8);
    uint64_t at = id == folded.id ? folded.offset : kHeaderSize;
    for (; at + kRecordSize <= bytes.size(); at += kRecordSize) {
        JournalEntry entry;
        if (!decode(&bytes[at], &entry)) {
            break;
        }
        entries->push_back(entry);
    }
    end->id = id;
    end->offset = at;
    return true;
}

void JournalTail::remove() const {
    unlink(path_.c_str());
}

std::string JournalTail::formatMark(const TailMark &mark) {
    char text[48];
    snprintf(text, sizeof text, "%016" PRIX64 " %" PRIu64, mark.id, mark.offset);
    return text;
}

TailMark JournalTail::parseMark(const std::string &text) {
    TailMark mark;
    if (sscanf(text.c_str(), "%" SCNx64 " %" SCNu64, &mark.id, &mark.offset) != 2) {
        return TailMark{};
    }
    return mark;
}

} // namespace kelsim
