/* The pass-through library (libkelpth.so): one SCSI command block, or one ATA
 * command inside ATA PASS-THROUGH(16), sent to one physical or logical drive.
 * Every call returns 0 on success or a status 1..8 with a detail in the sense area. */
#ifndef KELPTH_LIB_H
#define KELPTH_LIB_H

#include <stddef.h>
#include <stdint.h>

/* Exported by whichever implementation of the library is loaded. */
#ifndef KEL_API
#define KEL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KEL_IF_SAS = 0,
    KEL_IF_SATA = 1,
    KEL_TARGET_PHYSICAL = 0,
    KEL_TARGET_LOGICAL = 1,
    KEL_DIR_OUT = 0,  /* host to drive */
    KEL_DIR_IN = 1,   /* drive to host */
    KEL_DIR_NONE = 2, /* ATA non-data commands */
    KEL_SENSE_SIZE = 260,
};

/* Library statuses, and what the sense area then holds. */
enum {
    KEL_STATUS_GOOD = 0,
    KEL_STATUS_PARAMETER = 1,       /* byte 0: number of the wrong argument */
    KEL_STATUS_UNSUPPORTED = 2,     /* command not passed through */
    KEL_STATUS_EXECUTION = 3,       /* text detail */
    KEL_STATUS_CHECK_CONDITION = 4, /* fixed-format sense data */
    KEL_STATUS_SYSTEM_CALL = 5,     /* "%04d" errno then the function name */
    KEL_STATUS_READ_AND_WRITE = 6,  /* data direction contradicts the command */
    KEL_STATUS_NO_MEMORY = 7,       /* decimal errno text */
    KEL_STATUS_TIMEOUT = 8,
};

typedef struct PassThroughRequest {
    uint32_t interfaceType; /* KEL_IF_SAS (also every logical drive) or KEL_IF_SATA */
    uint32_t targetKind;    /* KEL_TARGET_PHYSICAL or KEL_TARGET_LOGICAL */
    uint8_t controllerNo;
    uint8_t driveNo;
    uint8_t direction; /* KEL_DIR_* */
    uint8_t cdb[16];
    uint8_t reserved27;
    uint32_t cdbLength;
    uint8_t reserved32;
    uint8_t ataCommandFlag; /* ATA command / transfer counted in 512-byte blocks */
    uint8_t reserved34[2];
} PassThroughRequest;

#define KEL_PASS_THROUGH_READ(name)                                                                                    \
    KEL_API int name(PassThroughRequest *request, void *data, uint32_t *dataLength, uint8_t *sense, uint32_t *senseSize)
#define KEL_PASS_THROUGH_WRITE(name)                                                                                   \
    KEL_API int name(PassThroughRequest *request, void *data, uint32_t dataLength, uint8_t *sense, uint32_t *senseSize)

KEL_PASS_THROUGH_READ(KelPasReadExtend);
KEL_PASS_THROUGH_WRITE(KelPasWriteExtend);
KEL_PASS_THROUGH_READ(KelPasReadSectorExt);
KEL_PASS_THROUGH_WRITE(KelPasWriteSectorExt);
KEL_PASS_THROUGH_READ(KelPasAnyCommand);
KEL_PASS_THROUGH_READ(KelPasInquiry);
KEL_PASS_THROUGH_READ(KelPasLogSense);
KEL_PASS_THROUGH_READ(KelPasModeSense);
KEL_PASS_THROUGH_WRITE(KelPasModeSelect);
KEL_PASS_THROUGH_READ(KelPasReadLong);
KEL_PASS_THROUGH_WRITE(KelPasWriteLong);
KEL_PASS_THROUGH_WRITE(KelPasWriteBuffer);

#ifdef __cplusplus
}

static_assert(sizeof(PassThroughRequest) == 36, "PassThroughRequest is 36 bytes");
static_assert(offsetof(PassThroughRequest, interfaceType) == 0, "interface type at 0");
static_assert(offsetof(PassThroughRequest, targetKind) == 4, "target kind at 4");
static_assert(offsetof(PassThroughRequest, controllerNo) == 8, "controller number at 8");
static_assert(offsetof(PassThroughRequest, driveNo) == 9, "drive number at 9");
static_assert(offsetof(PassThroughRequest, direction) == 10, "direction at 10");
static_assert(offsetof(PassThroughRequest, cdb) == 11, "CDB at 11");
static_assert(offsetof(PassThroughRequest, cdbLength) == 28, "CDB length at 28");
static_assert(offsetof(PassThroughRequest, ataCommandFlag) == 33, "ATA command flag at 33");
#endif

#endif
