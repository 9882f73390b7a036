// Helpers of the diagnostic commands: the mode-page file of PDPrintModePage, the log pages
// of the log-sense report with their decoders, and the INQUIRY that names a drive's model.
#pragma once

#include <cstdint>

// Appends one block to the mode-page file: a header, a rule, the bytes as rows of 16 with
// CR LF line ends, and an empty line. 1 when written, else 0 after its messages.
int FileWriteModePage(const char *path, const uint8_t *data, uint32_t size);

// Every present SAS drive of every controller in turn: absent slots are passed over
// silently, SATA drives with a trace line naming the handler. The walk stops, giving 0,
// when visit returns 0; else 1.
using SasDriveVisit = int (*)(int controllerNo, int slot, void *context);
int walkSasDrives(const char *handlerName, SasDriveVisit visit, void *context);

// LOG SENSE page 0x31 (the drive's past errors) of one SAS drive, printed as a table.
int LogPage31Command(int controllerNo, int driveNo);
int PrintLogPage31(const uint8_t *data, uint16_t length);

// LOG SENSE page 0x32 (SMART counters), asked and decoded by the drive's family; 1 also
// when the family has no decoder.
int LogPage32Command(int controllerNo, int driveNo);

// The decoders of page 0x32, one per family; each walks its family's whole page in a
// buffer of kLogPage32BufferSize bytes.
constexpr uint32_t kLogPage32BufferSize = 376;
int PrintLogPage32Fix73(const uint8_t *page);
int PrintLogPage32Fix146(const uint8_t *page);
int PrintLogPage32Fix36(const uint8_t *page);

// INQUIRY: vendor (8 bytes), product (16) and revision (4) copied to the caller's
// buffers. A failure is reported only when reportErrors is 1. 1 on success.
int GetInquiry(int controllerNo, int driveNo, char *vendorOut, char *productOut, char *revisionOut, int reportErrors);
