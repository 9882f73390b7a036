// An in-memory medium and settings store for testing the drive and volume models without
// the state database. Unwritten blocks read as zeros, like the sparse real store.
#pragma once

#include "device.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kelsim {

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
