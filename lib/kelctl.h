/* The controller library (libkelctl.so): controller enumeration, RAID status,
 * drive identification, the last-error code and the trace log.
 * C linkage; every record is laid out byte for byte as the library fills it. */
#ifndef KELCTL_H
#define KELCTL_H

#include <stddef.h>
#include <stdint.h>

/* Exported by whichever implementation of the library is loaded. */
#ifndef KEL_API
#define KEL_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Output of getContInfo. The program only looks at whether the call succeeded. */
typedef struct ContInfo {
    uint8_t raw[84];
} ContInfo;

/* Output of getRaidStatus: a state byte per logical drive and per physical slot,
 * 0xFF meaning absent. */
typedef struct RaidStatus {
    uint8_t reserved0[12];
    uint8_t logicalDriveState[8]; /* logical drives 0..7 */
    uint8_t reserved20[16];
    uint8_t physicalDriveState[8]; /* physical slots 0..7 */
    uint8_t reserved44[56];
} RaidStatus;

/* Output of getPhysicalDriveInfo. Identification strings are blank padded and not
 * terminated; a vendor identification starting with a zero byte means an empty slot. */
typedef struct PhysicalDriveInfo {
    uint8_t reserved0[14];
    char vendorId[8];
    char productId[16];
    char productRevision[4];
    uint8_t reserved42[82];
} PhysicalDriveInfo;

#define RAID_STATE_ABSENT 0xFF

KEL_API int initLog(const char *logFileName, uint32_t maxSize);
KEL_API int dumpLog(const char *module, uint32_t line, const char *text, const void *data, uint32_t dataLength);

KEL_API int initContData(int mode);
KEL_API int getContNum(uint8_t *controllerCount);
KEL_API int getContInfo(uint8_t controllerNo, ContInfo *info);
KEL_API int getRaidStatus(uint8_t controllerNo, RaidStatus *status);
KEL_API int getPhysicalDriveInfo(uint8_t controllerNo, uint8_t driveNo, PhysicalDriveInfo *info);
KEL_API uint32_t DLLGetLastError(void);
KEL_API int finContData(void);

#ifdef __cplusplus
}

static_assert(sizeof(ContInfo) == 84, "ContInfo is 84 bytes");
static_assert(sizeof(RaidStatus) == 100, "RaidStatus is 100 bytes");
static_assert(offsetof(RaidStatus, logicalDriveState) == 12, "logical drive states at 12");
static_assert(offsetof(RaidStatus, physicalDriveState) == 36, "physical slot states at 36");
static_assert(sizeof(PhysicalDriveInfo) == 124, "PhysicalDriveInfo is 124 bytes");
static_assert(offsetof(PhysicalDriveInfo, vendorId) == 14, "vendor identification at 14");
static_assert(offsetof(PhysicalDriveInfo, productId) == 22, "product identification at 22");
static_assert(offsetof(PhysicalDriveInfo, productRevision) == 38, "product revision at 38");
#endif

#endif
