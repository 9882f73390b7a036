// The SAS drive's block I/O: READ and WRITE (6, 10, 12, 16), WRITE AND VERIFY, VERIFY,
// WRITE SAME and SYNCHRONIZE CACHE, with the media-error marks stopping reads and
// reassigned by writes.
#include "sas_drive_internal.h"
#include "scsi_pages.h"

#include <algorithm>
#include <cstring>

namespace kelsim {
namespace sas {

ScsiResult SasDrive::read(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if ((cdb[0] >> 5) != 0 && (cdb[1] & 0xE0) != 0) {
        return invalidFieldInCdb(1, 7); // RDPROTECT: no protection information on this drive
    }
    BlockRange range = decodeBlockRange(cdb);
    if (!inRange(range.lba, range.count)) {
        return lbaOutOfRange();
    }
    uint64_t badLba = 0;
    bool hitMediaError = sasFirstMediaError(settings_, range.lba, range.count, &badLba);
    uint64_t readableBlocks = hitMediaError ? badLba - range.lba : range.count;

    // Whole blocks go straight into the host's buffer, a partial last one through a bounce block.
    const ScsiCommand &command = request.command;
    uint64_t bytes = std::min(readableBlocks * kBlockSize, hostRoom(command));
    uint64_t wholeBlocks = bytes / kBlockSize;
    if (wholeBlocks > 0) {
        medium_.read(range.lba, static_cast<uint32_t>(wholeBlocks), command.data);
    }
    if (bytes % kBlockSize != 0) {
        uint8_t block[kBlockSize];
        medium_.read(range.lba + wholeBlocks, 1, block);
        std::memcpy(command.data + wholeBlocks * kBlockSize, block, bytes % kBlockSize);
    }
    ScsiResult result = hitMediaError ? mediumError(badLba) : ScsiResult{};
    result.transferred = static_cast<uint32_t>(bytes);
    return result;
}

ScsiResult SasDrive::write(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if ((cdb[0] >> 5) != 0 && (cdb[1] & 0xE0) != 0) {
        return invalidFieldInCdb(1, 7); // WRPROTECT
    }
    BlockRange range = decodeBlockRange(cdb);
    if (!inRange(range.lba, range.count)) {
        return lbaOutOfRange();
    }
    if (range.count == 0) {
        return ScsiResult{};
    }
    uint64_t bytes = range.count * kBlockSize;
    const uint8_t *data = hostData(request.command, bytes);
    if (data == nullptr) {
        return invalidFieldInCdb(range.lengthByte);
    }
    medium_.write(range.lba, static_cast<uint32_t>(range.count), data);
    reassignMarkedBlocks(request, range.lba, range.count);
    ScsiResult result;
    result.transferred = static_cast<uint32_t>(bytes);
    return result;
}

ScsiResult SasDrive::verify(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[1] & 0xE0) {
        return invalidFieldInCdb(1, 7); // VRPROTECT
    }
    uint8_t byteCheck = (cdb[1] >> 1) & 0x03;
    if (byteCheck == 0x02) {
        return invalidFieldInCdb(1, 2);
    }
    BlockRange range = decodeBlockRange(cdb);
    if (!inRange(range.lba, range.count)) {
        return lbaOutOfRange();
    }
    uint64_t badLba = 0;
    if (sasFirstMediaError(settings_, range.lba, range.count, &badLba)) {
        return mediumError(badLba);
    }
    if (byteCheck == 0 || range.count == 0) {
        return ScsiResult{}; // medium verification only
    }
    // BYTCHK 01: the host sends every block; 11: one block compared with each.
    uint64_t sentBytes = byteCheck == 0x01 ? range.count * kBlockSize : kBlockSize;
    const uint8_t *expected = hostData(request.command, sentBytes);
    if (expected == nullptr) {
        return invalidFieldInCdb(range.lengthByte);
    }
    std::vector<uint8_t> chunk(kBounceBlocks * kBlockSize);
    for (uint64_t done = 0; done < range.count;) {
        uint32_t blocks = static_cast<uint32_t>(std::min<uint64_t>(kBounceBlocks, range.count - done));
        medium_.read(range.lba + done, blocks, chunk.data());
        for (uint32_t i = 0; i < blocks; ++i) {
            const uint8_t *want = byteCheck == 0x01 ? expected + (done + i) * kBlockSize : expected;
            const uint8_t *have = &chunk[i * kBlockSize];
            if (std::memcmp(want, have, kBlockSize) != 0) {
                // INFORMATION: the offset in the Data-Out Buffer of the first byte that differs.
                const uint32_t firstDiffering =
                    static_cast<uint32_t>(std::mismatch(want, want + kBlockSize, have).first - want);
                const uint64_t blockOffset = byteCheck == 0x01 ? (done + i) * kBlockSize : 0;
                ScsiResult result = checkCondition(kSenseMiscompare, kAscMiscompareDuringVerify, 0);
                setInformation(&result, static_cast<uint32_t>(blockOffset + firstDiffering));
                result.transferred = static_cast<uint32_t>(sentBytes);
                return result;
            }
        }
        done += blocks;
    }
    ScsiResult result;
    result.transferred = static_cast<uint32_t>(sentBytes);
    return result;
}

ScsiResult SasDrive::writeSame(const Request &request) {
    const uint8_t *cdb = request.cdb;
    if (cdb[1] & 0xE0) {
        return invalidFieldInCdb(1, 7); // WRPROTECT
    }
    if (cdb[1] & 0x08) {
        return invalidFieldInCdb(1, 3); // UNMAP: the drive is not thin provisioned
    }
    if (cdb[1] & 0x06) {
        return invalidFieldInCdb(1, 2); // PBDATA / LBDATA
    }
    BlockRange range = decodeBlockRange(cdb);
    if (range.count == 0 || range.count > kMaxTransferBlocks) {
        return invalidFieldInCdb(range.lengthByte); // WSNZ, and the limit of the block limits page
    }
    if (!inRange(range.lba, range.count)) {
        return lbaOutOfRange();
    }
    const uint8_t *pattern = hostData(request.command, kBlockSize);
    if (pattern == nullptr) {
        return invalidFieldInCdb(range.lengthByte);
    }
    std::vector<uint8_t> chunk(kBounceBlocks * kBlockSize);
    for (uint32_t i = 0; i < kBounceBlocks; ++i) {
        std::memcpy(&chunk[i * kBlockSize], pattern, kBlockSize);
    }
    for (uint64_t done = 0; done < range.count;) {
        uint32_t blocks = static_cast<uint32_t>(std::min<uint64_t>(kBounceBlocks, range.count - done));
        medium_.write(range.lba + done, blocks, chunk.data());
        done += blocks;
    }
    reassignMarkedBlocks(request, range.lba, range.count);
    ScsiResult result;
    result.transferred = kBlockSize;
    return result;
}

ScsiResult SasDrive::synchronizeCache(const Request &request) {
    BlockRange range = decodeBlockRange(request.cdb); // a count of 0 reaches to the last block
    if (!inRange(range.lba, range.count)) {
        return lbaOutOfRange();
    }
    return ScsiResult{}; // the cache is write-through: nothing is ever dirty
}

} // namespace sas
} // namespace kelsim
