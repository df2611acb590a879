// A chip on the simulated bench, powered, with its handle; the board's module only where a test starts it.
#pragma once

#include "bridge.h"
#include "chip/QTX3701/QTX3701-timing.h"
#include "chip/chip.h"
#include "module/module.h"
#include "support/trace.h"

namespace pulsekit::test {

class Radar : public Bridge {
 protected:
  Radar() { kinds = QTXSIM_EVENT_SPI | QTXSIM_EVENT_PIN; }
  ~Radar() override { release(); }

  void release() {
    if (radar->chip) chipFree(&radar->chip, nullptr);
    moduleFree(&radar->module, nullptr);
    radar->open = 0;
  }
  // An unstarted handle for a model.
  void create(const char *model, const char *serial = "FT0001AB") {
    release();
    clearBench();
    ASSERT_EQ(QTXSim_AddRadar(serial, "Radar", QTXSIM_FT232H, "QTX-K245", model), 0);
    open("FTx232H");
    ASSERT_EQ(connect(("FTx232H!(" + std::string(serial) + ")").c_str()), 0);
    ASSERT_EQ(interfaceIO_SetDirection(bridge, 1107, 1, 1), 0);
    watchLock();
    ASSERT_EQ(chipInitHandle(&radar->chip, &radar->error, radar, model), 0) << shown(*radar->error);
    chip = radar->chip;
    variables = chip->variables;
    operations = &chip->operations;
    record = static_cast<chip::TimingRecord *>(chip->timing_record);
  }
  void start(const char *model = "QTX3701", const char *serial = "FT0001AB") {
    create(model, serial);
    ASSERT_EQ(chipInitChip(chip), 0) << shown(*radar->error);
    unlocked = 0;  // its first read takes no lock
    QTXSim_ClearRecord();
  }
  void startModule() {
    ASSERT_EQ(moduleInitHandle(&radar->module, &radar->error, radar, "QTX-K245"), 0);
    ASSERT_EQ(moduleInitModule(radar->module), 0);
  }

  Variable *named(const char *name) const { return varNamed(variables, name); }
  int32_t set(const char *name, int64_t number) { return varSetIntValue(variables, named(name), number); }
  int32_t setReal(const char *name, double number) { return varSetFloatValue(variables, named(name), number); }
  int64_t get(const char *name) { return varGetValue_Real(variables, named(name)); }
  double real(const char *name) { return bitsToDouble(static_cast<uint64_t>(get(name))); }
  int32_t act(const char *name) { return varActionTrigger(variables, varActionNamed(variables, name)); }
  // "5", or "5 auto" while it follows its automatic value.
  std::string value_of(const char *name) const {
    const Variable *v = named(name);
    std::string text = v->flags & VAR_FLAG_ENUM    ? sym_to_str(variables, static_cast<int32_t>(v->value))
                       : v->flags & VAR_FLAG_FLOAT ? show(bitsToDouble(v->value))
                                                   : std::to_string(v->value);
    return text + (v->flags & VAR_FLAG_AUTO ? " auto" : "");
  }
  std::string values(std::initializer_list<const char *> names) const {
    std::string text;
    for (const char *name : names) text += std::string(" ") + name + "=" + value_of(name);
    return text;
  }

  ChipHandle *chip = nullptr;
  VariableSet *variables = nullptr;
  ChipOperations *operations = nullptr;
  chip::TimingRecord *record = nullptr;  // of the second generation
};

}  // namespace pulsekit::test
