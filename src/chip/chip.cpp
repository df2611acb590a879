#include "chip.h"

#include <cstring>
#include <string_view>

#include "../interface/interface.h"
#include "../support/QTX_Handle.h"
#include "../support/list.h"
#include "../support/trace.h"
#include "sweeps.h"

using namespace pulsekit;

static constexpr const char kSource[] = "src/chip/chip";

#define DECLARE_DRIVER(model)                                                 \
  const char *model##_Name();                                                 \
  int32_t model##_InitHandle(ChipHandle **, QTX_StackTrace **, QTX_Handle *); \
  int32_t model##_FreeHandle(ChipHandle **, QTX_StackTrace **)
DECLARE_DRIVER(QTX3400);
DECLARE_DRIVER(QTX3500);
DECLARE_DRIVER(QTX3701);
DECLARE_DRIVER(QTX3702);
#undef DECLARE_DRIVER
int32_t QTX3400_waitUntilIdle(ChipHandle *);
int32_t QTX3500_waitUntilIdle(ChipHandle *);
int32_t QTX3701_waitUntilIdle(ChipHandle *);
int32_t QTX3702_waitUntilIdle(ChipHandle *);
void QTX3701_forgetPreparation(ChipHandle *);
void QTX3702_forgetPreparation(ChipHandle *);
const chip::SweepDriver &QTX3701_Sweeps();
const chip::SweepDriver &QTX3702_Sweeps();

namespace {

struct Model {
  const char *name;
  uint16_t chip_id;
  const char *(*driver_name)();
  int32_t (*create)(ChipHandle **, QTX_StackTrace **, QTX_Handle *);
  int32_t (*release)(ChipHandle **, QTX_StackTrace **);
  int32_t (*wait_until_idle)(ChipHandle *);
  void (*settings_reset)(ChipHandle *);  // null: nothing follows from settings
  const chip::SweepDriver &(*sweeps)();  // null: not in bus programs
};

constexpr Model kModels[] = {
    {"QTX3400", 0x305, QTX3400_Name, QTX3400_InitHandle, QTX3400_FreeHandle, QTX3400_waitUntilIdle, nullptr, nullptr},
    {"QTX3500", 0x306, QTX3500_Name, QTX3500_InitHandle, QTX3500_FreeHandle, QTX3500_waitUntilIdle, nullptr, nullptr},
    {"QTX3701", 0x309, QTX3701_Name, QTX3701_InitHandle, QTX3701_FreeHandle, QTX3701_waitUntilIdle,
     QTX3701_forgetPreparation, QTX3701_Sweeps},
    {"QTX3702", 0x308, QTX3702_Name, QTX3702_InitHandle, QTX3702_FreeHandle, QTX3702_waitUntilIdle,
     QTX3702_forgetPreparation, QTX3702_Sweeps},
};

const Model *modelNamed(const char *name) {
  for (const Model &model : kModels) {
    if (name && std::strcmp(model.name, name) == 0) return &model;
  }
  return nullptr;
}

// ---- What a driver without an operation answers ----

int32_t NotImplemented_calculateCDF_Size(ChipHandle *chip, uint32_t *, uint32_t *) {
  return origin(chip->error_state, HERE_AT(243), kNotImplemented, "CDF is not implemented for this chip");
}

int32_t NotImplemented_getCDF(ChipHandle *chip, uint32_t *, int32_t) {
  return origin(chip->error_state, HERE_AT(251), kNotImplemented, "CDF is not implemented for this chip");
}

int32_t NotImplemented_getTimingMeasurementResults(ChipHandle *chip, double *, int32_t) {
  return origin(chip->error_state, HERE_AT(260), kNotImplemented,
                "getTimingMeasurementResults is not implemented for this chip");
}

int32_t NotImplemented_measurementSaveDataToFlash(ChipHandle *chip, uint32_t) {
  return origin(chip->error_state, HERE_AT(267), kNotImplemented,
                "measurementSaveDataToFlash is not implemented for this chip");
}

int32_t NotImplemented_measurementLoadDataFromFlash(ChipHandle *chip, uint32_t) {
  return origin(chip->error_state, HERE_AT(274), kNotImplemented,
                "measurementLoadDataFromFlash is not implemented for this chip");
}

template <typename Operation>
void fillEmpty(Operation &slot, Operation substitute) {
  if (!slot) slot = substitute;
}

void fillEmptySlots(ChipOperations &operations) {
  fillEmpty(operations.calculateCDF_Size, NotImplemented_calculateCDF_Size);
  fillEmpty(operations.getCDF, NotImplemented_getCDF);
  fillEmpty(operations.getTimingMeasurementResults, NotImplemented_getTimingMeasurementResults);
  fillEmpty(operations.measurementSaveDataToFlash, NotImplemented_measurementSaveDataToFlash);
  fillEmpty(operations.measurementLoadDataFromFlash, NotImplemented_measurementLoadDataFromFlash);
}

}  // namespace

int32_t chipWaitUntilIdle(ChipHandle *chip) {
  const Model *model = chip ? modelNamed(chip->name) : nullptr;
  const InterfaceHandle *bridge = model && chip->access ? chip->access->interface_handle : nullptr;
  const bool open = bridge && bridge->shared_status && *bridge->shared_status;
  return open ? model->wait_until_idle(chip) : int32_t{kSuccess};
}

void chipSettingsReset(ChipHandle *chip) {
  const Model *model = modelNamed(chip->name);
  if (model && model->settings_reset) model->settings_reset(chip);
}

const chip::SweepDriver *chip::sweepDriverOf(const ChipHandle *chip) {
  const Model *model = chip ? modelNamed(chip->name) : nullptr;
  return model && model->sweeps ? &model->sweeps() : nullptr;
}

extern "C" {

int32_t chipListSupportedChips(char *buffer, int32_t size) {
  if (!buffer) return kError;
  if (size <= 0) return kBufferTooSmall;
  buffer[0] = '\0';
  for (const Model &model : kModels) {
    if (int32_t code = appendDriver(buffer, size, model.name, model.driver_name())) return code;
  }
  return kSuccess;
}

const char *chipIdToChipName(uint16_t id) {
  for (const Model &model : kModels) {
    if (model.chip_id == id) return model.name;
  }
  return "Unknown";
}

int32_t chipInitHandle(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access, const char *name) {
  if (!error_state) return kError;
  if (!out || !name) return origin(*error_state, HERE, kError);
  *out = nullptr;
  const Model *model = modelNamed(name);
  if (!model) return origin(*error_state, HERE, kUnknownChip);
  if (int32_t code = model->create(out, error_state, access)) return passThrough(*error_state, HERE, code);
  (*out)->name = model->name;
  fillEmptySlots((*out)->operations);
  return kSuccess;
}

int32_t chipInitChip(ChipHandle *chip) {
  if (!chip) return kChipNotInitialized;
  if (int32_t code = chip->operations.InitChip(chip)) return passThrough(chip->error_state, HERE, code);
  return kSuccess;
}

int32_t chipFree(ChipHandle **chip, QTX_StackTrace **error_state_or_null) {
  QTX_StackTrace *record = error_state_or_null ? *error_state_or_null : nullptr;
  if (!chip) return origin(record, HERE, kError);
  if (!*chip) return origin(record, HERE, kChipNotInitialized);
  if (!record) record = (*chip)->error_state;
  const Model *model = modelNamed((*chip)->name);
  if (!model) return origin(record, HERE, kUnknownChip);
  // The record is gone after a success only.
  if (int32_t code = model->release(chip, error_state_or_null)) return passThrough(record, HERE, code);
  return kSuccess;
}

int32_t chipGetConnectedChipName(ChipHandle **out, QTX_StackTrace **error_state, QTX_Handle *access, char *name) {
  if (!error_state) return kError;
  if (!out || !name) return origin(*error_state, HERE, kError);
  std::strcpy(name, "Unknown");
  for (const Model &model : kModels) {
    if (int32_t code = chipInitHandle(out, error_state, access, model.name)) {
      return passThrough(*error_state, HERE, code);
    }
    const bool connected = (*out)->chip_id == model.chip_id;
    if (int32_t code = chipFree(out, nullptr)) return passThrough(*error_state, HERE, code);
    if (connected) {
      std::strcpy(name, model.name);
      return kSuccess;
    }
  }
  return kSuccess;
}

int32_t chipListVariables(ChipHandle *chip, char *buffer, int32_t size) {
  if (!chip) return kError;
  if (!chip->variables) return origin(chip->error_state, HERE, kChipNotInitialized);
  if (int32_t code = varListVariables(chip->variables, buffer, size)) {
    return passThrough(chip->error_state, HERE, code);
  }
  return kSuccess;
}

int32_t chipListActions(ChipHandle *chip, char *buffer, int32_t size) {
  if (!chip) return kError;
  if (!chip->variables) return origin(chip->error_state, HERE, kChipNotInitialized);
  if (int32_t code = varListActions(chip->variables, buffer, size)) {
    return passThrough(chip->error_state, HERE, code);
  }
  return kSuccess;
}

}  // extern "C"
