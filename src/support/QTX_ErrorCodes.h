// Error codes. The texts stand in QTX_ErrorCodes.cpp.
#pragma once

#include <cstdint>

namespace pulsekit {

enum ErrorCode : int32_t {
  kSuccess = 0,
  kError = 1,
  kBufferTooSmall = 2,
  kNoStackTrace = 3,
  kNotImplemented = 4,
  kNoValidSetup = 5,
  kCouldNotOpenFile = 6,
  kOutOfMemory = 7,
  kNoSuchFunctionId = 8,
  kInterfaceError = 256,
  kInterfaceInitHandle = 257,
  kInterfaceInit = 258,
  kInterfaceList = 259,
  kInterfaceOpen = 260,
  kIoSet = 261,
  kIoRead = 262,
  kInterfaceStatus = 263,
  kInterfaceRead = 264,
  kInterfaceWrite = 265,
  kInterfaceDisconnect = 266,
  kNoDevices = 267,
  kInterfaceUnknown = 268,
  kInterfaceNotInitialized = 269,
  kInterfaceTimeout = 270,
  kLogNotOpen = 271,
  kCouldNotOpenLog = 272,
  kModuleError = 512,
  kUnknownModule = 513,
  kModuleNotInitialized = 514,
  kFlashAccess = 640,
  kFlashProgram = 641,
  kFlashErase = 642,
  kChipError = 768,
  kUnknownChip = 769,
  kChipNotInitialized = 770,
  kTimingMeasurement = 771,
  kTimingClockEdge = 772,
  kTimingClockLevel = 773,
  kRadarError = 1024,
  kRadarNotInitialized = 1025,
  kVariableSystem = 1280,
  kVariableWrite = 1281,
  kVariableNotVisible = 1282,
  kUnknownVariable = 1283,
  kUnknownAction = 1284,
  kVariableReadOnly = 1285,
  kIllegalValue = 1286,
  kLastError = 1287,  // end marker, never reported
  kCancelled = 1537,
  kWaitedTooLong = 1538,
  kNoStream = 1539,
  kStreamRunning = 1540,
  kNotPossible = 1541,
};

}  // namespace pulsekit
