// The numbered messages: each reporter prints its text and traces it with the
// reporting module and line. KelIsErr turns a pass-through status into its message.
#pragma once

#include <cstdint>

// Each source file defines KEL_MODULE ("KelPthCmd" or "KelPthCmd_SATA") before
// including this header; KEL_HERE passes the module and the caller's line.
#define KEL_HERE KEL_MODULE, __LINE__

int KelPthErr0000(const char *module, int line);
int KelPthErr0001(const char *module, int line);
int KelPthErr0002(const char *module, int line);
int KelPthErr0003(const char *module, int line);
int KelPthErr0004(const char *module, int line, const char *function, uint32_t errorNumber);
int KelPthErr0004e(const char *module, int line, const char *function, uint32_t errorNumber);
int KelPthErr0004d(const char *module, int line, const char *function, uint32_t code);
int KelPthErr0005(const char *module, int line, const uint8_t *sense);
int KelPthErr0006(const char *module, int line, int errorNumber);
int KelPthErr0007(const char *module, int line, int errorNumber, const char *detail);
int KelPthErr0008(const char *module, int line, int errorNumber);
int KelPthErr0009(const char *module, int line);
int KelPthErr0010(const char *module, int line, int controllerNo, int portNo, const char *productId);
int KelPthErr0011(const char *module, int line, int errorNumber);
int KelPthErr0012(const char *module, int line);
int KelPthErr0013(const char *module, int line, const char *statusText);
int KelPthErr0014(const char *module, int line, int32_t argNo);
int KelPthErr0015(const char *module, int line);
int KelPthErr0016(const char *module, int line, char *detail);
int KelPthErr0017(const char *module, int line);
int KelPthErr0018(const char *module, int line);
int KelPthErr0019(const char *module, int line);
int KelPthErr0020(const char *module, int line);
int KelPthErr0021(const char *module, int line);
int KelPthErr0022(const char *module, int line, const char *detail);
int KelPthErr0023(const char *module, int line);
int KelPthErr0024(const char *module, int line, const char *driveKind);
int KelPthErr0025(const char *module, int line);
int KelPthErr0026(const char *module, int line, const char *driveName);

// Reports the message for a failed pass-through status and returns 0.
int KelIsErr(const char *module, int line, uint32_t status, uint8_t *detail);
