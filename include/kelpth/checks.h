// Controller and drive checks over the controller library's status calls.
#pragma once

#include <cstdint>

enum DriveKind { kPhysicalDrive = 0, kLogicalDrive = 1 };
enum InterfaceType : uint32_t { kInterfaceSas = 0, kInterfaceSata = 1 };

int ControllerCheck(const char *module, int line, int controllerNo);
int DriveCheck(const char *module, int line, int controllerNo, int driveNo, int driveKind);
int DriveCheck_Silence(int controllerNo, int driveNo);
int getHddType(int controllerNo, int driveNo, uint32_t *interfaceType);
