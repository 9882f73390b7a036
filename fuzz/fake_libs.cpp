// An in-memory stand-in for both controller libraries, for the fuzzer: one controller
// whose slots 0..7 all hold a drive (slot 4 a SATA drive of the MQX5108 model), and
// every call succeeds, but for READ LONG, which reports a 520-byte long block as a drive
// does, and any pass-through call past the budget of one input, which times out (so
// that a huge block count in a media-error file ends quickly).
// Each call touches every byte it was told it may use, so that the sanitizer notices a
// buffer shorter than the length the program passed with it.
#include <cstring>

#include "fake_libs.h"
#include "kelctl.h"
#include "kelpth.h"

namespace {
constexpr uint8_t kSataSlot = 4;
volatile uint8_t sink;
constexpr int kCallsPerInput = 64;
int callsLeft = kCallsPerInput;

void readAll(const void *data, uint32_t length) {
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    uint8_t sum = 0;
    for (uint32_t i = 0; i < length; i++) {
        sum = static_cast<uint8_t>(sum + bytes[i]);
    }
    sink = sum;
}

void fillAll(void *data, uint32_t length) {
    uint8_t *bytes = static_cast<uint8_t *>(data);
    for (uint32_t i = 0; i < length; i++) {
        bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    }
}

int passThrough(PassThroughRequest *request, void *data, uint32_t length, uint8_t *sense, uint32_t *senseSize) {
    readAll(request, sizeof *request);
    memset(sense, 0, *senseSize);
    if (--callsLeft < 0) {
        return KEL_STATUS_TIMEOUT;
    }
    if (request->direction == KEL_DIR_IN) {
        fillAll(data, length);
    } else {
        readAll(data, length);
    }
    return KEL_STATUS_GOOD;
}
} // namespace

void resetFakeCallBudget() {
    callsLeft = kCallsPerInput;
}

extern "C" {
int initLog(const char *, uint32_t) {
    return 1;
}
int dumpLog(const char *module, uint32_t, const char *text, const void *data, uint32_t dataLength) {
    sink = static_cast<uint8_t>(strlen(text) + (module != nullptr ? strlen(module) : 0));
    readAll(data, dataLength);
    return 1;
}
int initContData(int) {
    return 1;
}
int getContNum(uint8_t *controllerCount) {
    *controllerCount = 1;
    return 1;
}
int getContInfo(uint8_t, ContInfo *info) {
    memset(info, 0, sizeof *info);
    return 1;
}
int getRaidStatus(uint8_t, RaidStatus *status) {
    memset(status, 0, sizeof *status);
    return 1;
}
int getPhysicalDriveInfo(uint8_t, uint8_t driveNo, PhysicalDriveInfo *info) {
    memset(info, 0, sizeof *info);
    memcpy(info->vendorId, driveNo == kSataSlot ? "ATA     " : "SIMDISK ", sizeof info->vendorId);
    memcpy(info->productId, driveNo == kSataSlot ? "MQX5108FUZZ     " : "FUZZDRIVE       ", sizeof info->productId);
    return 1;
}
uint32_t DLLGetLastError(void) {
    return 0;
}
int finContData(void) {
    return 1;
}

#define READ_CALL(name)                                                                                                \
    int name(PassThroughRequest *request, void *data, uint32_t *dataLength, uint8_t *sense, uint32_t *senseSize) {     \
        return passThrough(request, data, *dataLength, sense, senseSize);                                              \
    }
#define WRITE_CALL(name)                                                                                               \
    int name(PassThroughRequest *request, void *data, uint32_t dataLength, uint8_t *sense, uint32_t *senseSize) {      \
        return passThrough(request, data, dataLength, sense, senseSize);                                               \
    }
READ_CALL(KelPasReadExtend)
WRITE_CALL(KelPasWriteExtend)
READ_CALL(KelPasReadSectorExt)
WRITE_CALL(KelPasWriteSectorExt)
READ_CALL(KelPasAnyCommand)
READ_CALL(KelPasInquiry)
READ_CALL(KelPasLogSense)
READ_CALL(KelPasModeSense)
WRITE_CALL(KelPasModeSelect)
int KelPasReadLong(PassThroughRequest *request, void *data, uint32_t *dataLength, uint8_t *sense, uint32_t *senseSize) {
    const int status = passThrough(request, data, *dataLength, sense, senseSize);
    if (status != KEL_STATUS_GOOD || *senseSize < 18) {
        return status;
    }
    // ILLEGAL REQUEST, VALID and ILI, INFORMATION -8: the long block is 520 bytes.
    const uint8_t fixedSense[18] = {0xF0, 0, 0x25, 0xFF, 0xFF, 0xFF, 0xF8, 10, 0, 0, 0, 0, 0x24};
    memcpy(sense, fixedSense, sizeof fixedSense);
    return KEL_STATUS_CHECK_CONDITION;
}
WRITE_CALL(KelPasWriteLong)
WRITE_CALL(KelPasWriteBuffer)
}
