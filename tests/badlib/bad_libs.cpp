// A misbehaving implementation of both controller libraries, for the tests only. Every
// call draws from a generator seeded by KELBAD_SEED: random statuses (also ones no
// library defines), read lengths larger than the buffer it was given, sense sizes past
// 32 and detail areas without a terminator, drive records with unterminated strings and
// absurd controller counts. It never writes outside the buffers it is given and reads
// every byte the program says a buffer holds, so a wrong length shows up under
// AddressSanitizer in the program, never in here.
#include "kelctl.h"
#include "kelpth.h"

#include <cstdlib>
#include <cstring>

namespace {

uint64_t state = 0;

uint32_t next() {
    if (state == 0) {
        const char *seed = getenv("KELBAD_SEED");
        state = 0x9E3779B97F4A7C15ull ^ (seed != nullptr ? strtoull(seed, nullptr, 10) : 1);
    }
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<uint32_t>(state >> 11);
}

// True about percent times in a hundred.
bool chance(uint32_t percent) {
    return next() % 100 < percent;
}

template <typename T, size_t N> T pick(const T (&choices)[N]) {
    return choices[next() % N];
}

// Bytes that are never zero, so no string in them is terminated.
void fillUnterminated(void *area, size_t size) {
    auto *bytes = static_cast<uint8_t *>(area);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<uint8_t>(1 + next() % 255);
    }
}

// Reads every byte the caller says it handed over.
volatile uint8_t sink;
void touch(const void *data, size_t size) {
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (size_t i = 0; i < size; i++) {
        sink = bytes[i];
    }
}

int randomStatus() {
    static const int statuses[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 255, -1, 0x7FFFFFFF};
    return chance(50) ? 0 : pick(statuses);
}

// Status, sense area and sense size of one pass-through call.
int finishCall(uint8_t *sense, uint32_t *senseSize) {
    if (sense != nullptr) {
        fillUnterminated(sense, KEL_SENSE_SIZE);
    }
    if (senseSize != nullptr) {
        static const uint32_t sizes[] = {0, 18, 33, 260, 4096, 0xFFFFFFFF};
        *senseSize = pick(sizes);
    }
    return randomStatus();
}

int readCall(PassThroughRequest *request, void *data, uint32_t *dataLength, uint8_t *sense, uint32_t *senseSize) {
    touch(request, sizeof *request);
    const uint32_t given = dataLength != nullptr ? *dataLength : 0;
    if (data != nullptr) {
        fillUnterminated(data, given);
    }
    if (dataLength != nullptr) {
        const uint32_t lengths[] = {given, given + 1, given * 2, 0x10000, 0x20000, 0xFFFFFFFF, 0};
        *dataLength = chance(30) ? given : pick(lengths);
    }
    return finishCall(sense, senseSize);
}

int writeCall(PassThroughRequest *request, void *data, uint32_t dataLength, uint8_t *sense, uint32_t *senseSize) {
    touch(request, sizeof *request);
    if (data != nullptr) {
        touch(data, dataLength);
    }
    return finishCall(sense, senseSize);
}

} // namespace

extern "C" {

int initLog(const char *name, uint32_t) {
    touch(name, strlen(name));
    return static_cast<int>(chance(80));
}
int dumpLog(const char *module, uint32_t, const char *text, const void *data, uint32_t dataLength) {
    if (module != nullptr) {
        touch(module, strlen(module));
    }
    if (text != nullptr) {
        touch(text, strlen(text));
    }
    if (data != nullptr) {
        touch(data, dataLength);
    }
    return static_cast<int>(chance(80));
}
int initContData(int) {
    return static_cast<int>(chance(95));
}
int getContNum(uint8_t *count) {
    static const uint8_t counts[] = {0, 1, 2, 10, 11, 128, 255};
    *count = chance(60) ? 1 : pick(counts);
    return static_cast<int>(chance(90));
}
int getContInfo(uint8_t, ContInfo *info) {
    fillUnterminated(info, sizeof *info);
    return static_cast<int>(chance(90));
}
int getRaidStatus(uint8_t, RaidStatus *status) {
    fillUnterminated(status, sizeof *status);
    // Mostly present drives, so that the commands get as far as the pass-through calls.
    for (uint8_t &state : status->physicalDriveState) {
        state = chance(85) ? 0 : static_cast<uint8_t>(next());
    }
    for (uint8_t &state : status->logicalDriveState) {
        state = chance(85) ? 0 : static_cast<uint8_t>(next());
    }
    return static_cast<int>(chance(90));
}
int getPhysicalDriveInfo(uint8_t, uint8_t, PhysicalDriveInfo *info) {
    fillUnterminated(info, sizeof *info);
    if (chance(40)) {
        memcpy(info->vendorId, "ATA", 3);
    }
    if (chance(30)) {
        memcpy(info->productId, "MQX5108", 7);
    }
    if (chance(5)) {
        info->vendorId[0] = '\0';
    }
    return static_cast<int>(chance(90));
}
uint32_t DLLGetLastError(void) {
    return next();
}
int finContData(void) {
    return static_cast<int>(chance(50));
}

#define BAD_READ(name)                                                                                                 \
    KEL_PASS_THROUGH_READ(name) {                                                                                      \
        return readCall(request, data, dataLength, sense, senseSize);                                                  \
    }
#define BAD_WRITE(name)                                                                                                \
    KEL_PASS_THROUGH_WRITE(name) {                                                                                     \
        return writeCall(request, data, dataLength, sense, senseSize);                                                 \
    }
BAD_READ(KelPasReadExtend)
BAD_WRITE(KelPasWriteExtend)
BAD_READ(KelPasReadSectorExt)
BAD_WRITE(KelPasWriteSectorExt)
BAD_READ(KelPasAnyCommand)
BAD_READ(KelPasInquiry)
BAD_READ(KelPasLogSense)
BAD_READ(KelPasModeSense)
BAD_WRITE(KelPasModeSelect)
BAD_READ(KelPasReadLong)
BAD_WRITE(KelPasWriteLong)
BAD_WRITE(KelPasWriteBuffer)
}
