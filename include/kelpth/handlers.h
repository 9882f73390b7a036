// Every command handler of the table, and the SATA variants they hand over to.
#pragma once

#include <cstdint>

// Main module (KelPthCmd)
int32_t KelPrintLogsense();
int32_t KelFirmwareUpdate();
int32_t KelFixAnyPassThrough();
int32_t KelPDHDDMediaErrorSet();
int32_t KelPDHDDErrorInjectionSet();
int32_t KelLDOneOneStripeRead();
int32_t KelLDOneOneStripeWrite();
int32_t KelPDOneSectorReadDump();
int32_t KelLDOneOneStripeRead2();
int32_t KelLDOneOneStripeWrite2();
int32_t KelFreAnyPassThrough();
int32_t KelPDOneSectorRead();
int32_t KelPDPrintModePage();
int32_t KelPDOneSectorWrite();
int32_t KelPDHDDCapaChange();
int32_t KelLDOneSectorRead();
int32_t KelLDOneSectorWrite();
int32_t KelPDHDDErrorInjectionSet5();
int32_t KelLDOneOneStripeRead264();
int32_t KelLDOneOneStripeWrite264();

// SATA module (KelPthCmd_SATA)
int32_t KelPDHDDMediaErrorSet_SATA();
int32_t KelPDHDDErrorInjectionSet_SATA();
int32_t KelPDOneSectorRead_SATA();
int32_t KelPDOneSectorWrite_SATA();
int32_t KelPDHDDCapaChange_SATA();
int32_t KelFreAnyPassThrough_SATA();
int setAtaAddress48bit(uint32_t mode, uint64_t lba, uint8_t *cdbByte7);
int getIdentifyDevice(int controllerNo, int driveNo, uint32_t ignored, uint8_t *buffer512);
