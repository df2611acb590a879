#include "QTX_ErrorCodes.h"

#include "Pulsekit3.h"

namespace {

using namespace pulsekit;

struct ErrorText {
  int32_t code;
  const char *text;
};

constexpr ErrorText kTexts[] = {
    {kSuccess, "Success"},
    {kError, "Error"},
    {kBufferTooSmall, "Buffer too small"},
    {kNoStackTrace, "Stack trace system is not initialized - no error message available"},
    {kNotImplemented, "Feature not implemented"},
    {kNoValidSetup, "No valid setup found"},
    {kCouldNotOpenFile, "Could not open file"},
    {kOutOfMemory, "Could not allocate memory"},
    {kNoSuchFunctionId, "No such function ID defined for this platform"},
    {kInterfaceError, "Interface device error"},
    {kInterfaceInitHandle, "Could not initialize handle for interface device"},
    {kInterfaceInit, "Could not initialize interface device"},
    {kInterfaceList, "Could not list interface devices"},
    {kInterfaceOpen, "Could not open connection to interface device"},
    {kIoSet, "Could not set the IO pins"},
    {kIoRead, "Could not read the status of the IO pins"},
    {kInterfaceStatus, "Could not read status from the interface device"},
    {kInterfaceRead, "Could not read data from the interface device"},
    {kInterfaceWrite, "Could not write data to the interface device"},
    {kInterfaceDisconnect, "Could not disconnect interface device"},
    {kNoDevices, "No devices found"},
    {kInterfaceUnknown, "Interface name unknown"},
    {kInterfaceNotInitialized, "Interface is not initialized"},
    {kInterfaceTimeout, "Timeout reading data from device"},
    {kLogNotOpen, "Log file not open"},
    {kCouldNotOpenLog, "Could not open log file"},
    {kModuleError, "IO module error"},
    {kUnknownModule, "Unknown module"},
    {kModuleNotInitialized, "Module is not initialized"},
    {kFlashAccess, "Error accessing flash"},
    {kFlashProgram, "Error programming flash"},
    {kFlashErase, "Error erasing flash"},
    {kChipError, "Chip error"},
    {kUnknownChip, "Unknown chip"},
    {kChipNotInitialized, "Chip is not initialized"},
    {kTimingMeasurement, "Timing measurement function detected error"},
    {kTimingClockEdge, "Timing measurement function could not find clock edge"},
    {kTimingClockLevel, "Timing measurement function could not find level of clock pulse"},
    {kRadarError, "Radar module error"},
    {kRadarNotInitialized, "Radar is not initialized"},
    {kVariableSystem, "Variable system error"},
    {kVariableWrite, "Variable system could not write register"},
    {kVariableNotVisible, "Variable not visible"},
    {kUnknownVariable, "Unknown variable"},
    {kUnknownAction, "Unknown action"},
    {kVariableReadOnly, "Variable is read only"},
    {kIllegalValue, "Illegal value for this variable"},
    {kCancelled, "Cancelled"},
    {kWaitedTooLong, "Waited too long"},
    {kNoStream, "No stream is running"},
    {kStreamRunning, "A stream is running"},
    {kNotPossible, "Not possible with these settings"},
};

}  // namespace

extern "C" const char *GetErrorMessage(int32_t code) {
  for (const ErrorText &entry : kTexts) {
    if (entry.code == code) return entry.text;
  }
  return "NO ERROR MESSAGE AVAILABLE";
}
