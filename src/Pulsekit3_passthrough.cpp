// Direct access to chip registers, pins, the SPI bus, the interface log and the timing measurement's data.
#include "Pulsekit3.h"
#include "calls.h"
#include "stream.h"
#include "support/handle_state.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/Pulsekit3";

extern "C" {

int32_t QTX_RegisterRead(QTX_Handle *handle, uint8_t address, uint32_t byte_count, uint64_t *value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, value)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::ReadRegister)) return code;
  if (int32_t code = handle->chip->operations.ReadRegister(handle, address, byte_count, value)) {
    return passThrough(handle->error, HERE_AT(2253), code);
  }
  return kSuccess;
}

int32_t QTX_RegisterWrite(QTX_Handle *handle, uint8_t address, int32_t byte_count, uint64_t value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::WriteRegister)) return code;
  if (Stream *stream = streamOf(handle)) stream->noteWrittenRegister();
  if (int32_t code = handle->chip->operations.WriteRegister(handle, address, byte_count, value)) {
    return passThrough(handle->error, HERE_AT(2266), code);
  }
  return kSuccess;
}

int32_t QTX_IO_SetValue(QTX_Handle *handle, uint32_t pin, uint32_t value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SetIO)) return code;
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->SetIO(bridge, pin, value)) return passThrough(handle->error, HERE_AT(2279), code);
  return kSuccess;
}

int32_t QTX_IO_SetDirection(QTX_Handle *handle, uint32_t pin, uint32_t direction, uint32_t value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SetIO_Direction)) return code;
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->SetIO_Direction(bridge, pin, direction, value)) {
    return passThrough(handle->error, HERE_AT(2292), code);
  }
  return kSuccess;
}

int32_t QTX_IO_GetValue(QTX_Handle *handle, uint32_t pin, uint32_t *value) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, value)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::GetIO)) return code;
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->GetIO(bridge, pin, value)) return passThrough(handle->error, HERE_AT(2305), code);
  return kSuccess;
}

int32_t QTX_SPI_SendReceive(QTX_Handle *handle, uint32_t channel, const uint8_t *out, int32_t out_count, uint8_t *in,
                            uint32_t in_count) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if ((!out && out_count > 0) || (!in && in_count > 0)) return origin(handle->error, HERE, kError);
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SendReceiveSPI)) return code;
  if (Stream *stream = streamOf(handle)) stream->distrust();
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->SendReceiveSPI(bridge, channel, out, out_count, in, in_count, SPI_MODE_EXECUTE)) {
    return passThrough(handle->error, HERE_AT(2318), code);
  }
  return kSuccess;
}

int32_t QTX_SPI_SendReceiveBits(QTX_Handle *handle, uint32_t channel, const uint8_t *out, int32_t out_bits, uint8_t *in,
                                int32_t in_bits, uint32_t flags) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if ((!out && out_bits > 0) || (!in && in_bits > 0)) return origin(handle->error, HERE, kError);
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::SendReceiveBitsSPI)) return code;
  if (Stream *stream = streamOf(handle)) stream->distrust();
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->SendReceiveBitsSPI(bridge, channel, out, out_bits, in, in_bits, flags)) {
    return passThrough(handle->error, HERE_AT(2331), code);
  }
  return kSuccess;
}

int32_t QTX_InterfaceLogging(QTX_Handle *handle, int32_t mode, const char *file_name) {
  const CallScope call(handle);
  constexpr int32_t kOpen = 1;
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (mode == kOpen && !file_name) return origin(handle->error, HERE, kError);
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::InterfaceLogging)) return code;
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->InterfaceLogging(bridge, mode, file_name)) {
    return passThrough(handle->error, HERE_AT(2344), code);
  }
  return kSuccess;
}

int32_t QTX_InterfaceLogComment(QTX_Handle *handle, const char *text) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE, text)) return code;
  if (int32_t code = checkInterface(handle, HERE, &InterfaceHandle::InterfaceLogComment)) return code;
  InterfaceHandle *bridge = handle->interface_handle;
  const InterfaceLock lock(bridge);
  if (int32_t code = bridge->InterfaceLogComment(bridge, text)) return passThrough(handle->error, HERE_AT(2357), code);
  return kSuccess;
}

int32_t QTX_TimingMeasurementResults(QTX_Handle *handle, double *results, int32_t capacity) {
  if (int32_t code = checkCall(handle, HERE, results)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::getTimingMeasurementResults)) return code;
  return handle->chip->operations.getTimingMeasurementResults(handle->chip, results, capacity);
}

int32_t QTX_TimingMeasurementSaveDataToFlash(QTX_Handle *handle, uint32_t block) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::measurementSaveDataToFlash)) return code;
  if (int32_t code = handle->chip->operations.measurementSaveDataToFlash(handle->chip, block)) {
    return passThrough(handle->error, HERE_AT(2375), code);
  }
  return kSuccess;
}

int32_t QTX_TimingMeasurementLoadDataFromFlash(QTX_Handle *handle, uint32_t block) {
  const CallScope call(handle);
  if (int32_t code = checkCall(handle, HERE)) return code;
  if (int32_t code = checkChip(handle, HERE, &ChipOperations::measurementLoadDataFromFlash)) return code;
  if (int32_t code = handle->chip->operations.measurementLoadDataFromFlash(handle->chip, block)) {
    return passThrough(handle->error, HERE_AT(2388), code);
  }
  return kSuccess;
}

}  // extern "C"
