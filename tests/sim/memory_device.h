// An in-memory medium and settings store for testing the drive and volume models without
// the state database. Unwritten blocks read as zeros, like the sparse real store. Also the
// sending of one command and the reading of big-endian fields in the answers the models give.
#pragma once

#include "device.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace kelsim {

// One command to a model, its data in the host buffer `data` of `size` bytes.
inline ScsiResult execute(ScsiTarget &target, const std::vector<uint8_t> &cdb, DataDirection direction, uint8_t *data,
                          size_t size, bool blockTransferUnit = false) {
    ScsiCommand command;
    command.cdb = cdb.data();
    command.cdbLength = cdb.size();
    command.direction = direction;
    command.data = data;
    command.dataLength = static_cast<uint32_t>(size);
    command.blockTransferUnit = blockTransferUnit;
    return target.execute(command);
}

// The big-endian field of `width` bytes at `offset` of an answer.
inline uint64_t be(const std::vector<uint8_t> &data, size_t offset, int width) {
    uint64_t value = 0;
    for (int i = 0; i < width; ++i) {
        value = value << 8 | data.at(offset + i);
    }
    return value;
}

class MemoryMedium : public Medium {
  public:
    void read(uint64_t lba, uint32_t count, uint8_t *out) override {
        for (uint32_t i = 0; i < count; i++, out += kBlockSize) {
            auto found = blocks.find(lba + i);
            if (found == blocks.end()) {
                std::fill(out, out + kBlockSize, 0);
            } else {
                std::copy(found->second.begin(), found->second.end(), out);
            }
        }
    }
    void write(uint64_t lba, uint32_t count, const uint8_t *in) override {
        for (uint32_t i = 0; i < count; i++, in += kBlockSize) {
            blocks[lba + i].assign(in, in + kBlockSize);
        }
    }
    uint8_t firstByte(uint64_t lba) const {
        auto found = blocks.find(lba);
        return found != blocks.end() ? found->second[0] : 0;
    }
    std::map<uint64_t, std::vector<uint8_t>> blocks;
};

// A member disk for volume tests: READ(16) and WRITE(16) over a MemoryMedium. A read that
// meets a block in `bad` gives the blocks before it and MEDIUM ERROR; a write makes the
// blocks good again; a stopped disk answers NOT READY. Counts the commands it gets.
class MemoryDisk : public ScsiTarget {
  public:
    ScsiResult execute(const ScsiCommand &command) override {
        commands++;
        if (stopped) {
            return checkCondition(sense::kNotReady, 0x04, 0x02);
        }
        uint64_t lba = 0;
        uint32_t count = 0;
        for (int i = 0; i < 8; i++) {
            lba = lba << 8 | command.cdb[2 + i];
        }
        for (int i = 0; i < 4; i++) {
            count = count << 8 | command.cdb[10 + i];
        }
        ScsiResult result;
        if (command.cdb[0] == 0x8A) {
            medium.write(lba, count, command.data);
            for (uint32_t i = 0; i < count; i++) {
                bad.erase(lba + i);
            }
            result.transferred = count * kBlockSize;
            return result;
        }
        uint32_t good = 0;
        while (good < count && bad.count(lba + good) == 0) {
            good++;
        }
        medium.read(lba, good, command.data);
        if (good < count) {
            result = checkCondition(sense::kMediumError, sense::kAscUnrecoveredReadError, 0);
        }
        result.transferred = good * kBlockSize;
        return result;
    }
    MemoryMedium medium;
    std::set<uint64_t> bad;
    bool stopped = false;
    int commands = 0;
};

class MemorySettings : public DriveSettings {
  public:
    bool get(const std::string &key, std::string *value) override {
        auto found = values.find(key);
        if (found == values.end()) {
            return false;
        }
        *value = found->second;
        return true;
    }
    void set(const std::string &key, const std::string &value) override { values[key] = value; }
    std::map<std::string, std::string> values;
};

} // namespace kelsim
