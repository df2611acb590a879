/*
 * The variable system: named, typed variables and actions with ranges, automatic values, dependencies and hardware
 * back-ends. It knows nothing of chips: everything particular happens in the callback of each variable.
 *
 * A value is one 64-bit slot: an integer, the bits of a double, or the symbol number of an enumeration item. The slot
 * VAR_AUTO asks a variable to follow its automatic value.
 *
 * A set belongs to one chip, module or interface handle and is used by one thread at a time. Failures go to the set's
 * error record. A null argument gives 1; functions without a code answer 0, null or "(invalid)".
 */
#ifndef PULSEKIT3_VARS_H
#define PULSEKIT3_VARS_H

#include <stdint.h>

#include "Pulsekit3.h"
#include "QTX_StackTrace.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAR_AUTO 0x7fffffffu

enum {
  VAR_FLAG_VISIBLE = 0x1,
  VAR_FLAG_READ_ONLY = 0x2,
  VAR_FLAG_ENUM = 0x8,
  VAR_FLAG_LIVE_READ = 0x10,     /* measured in the hardware at each read; never settable */
  VAR_FLAG_KEEP_ON_RESET = 0x20, /* a reset other than the first leaves it alone */
  VAR_FLAG_NO_AUTO_VALUE = 0x40, /* its automatic value is 0 */
  VAR_FLAG_AUTO = 0x80,          /* follows its automatic value now */
  VAR_FLAG_AUTO_VALUE_MIRROR = 0x100,
  VAR_FLAG_FROM_BACKEND = 0x400, /* read from a register at each read; never settable */
  VAR_FLAG_INT = 0x800,
  VAR_FLAG_FLOAT = 0x1000,
  /* Not writable by a host, and skipped when settings are loaded. */
  VAR_FLAGS_NOT_WRITABLE = VAR_FLAG_READ_ONLY | VAR_FLAG_LIVE_READ | VAR_FLAG_KEEP_ON_RESET | VAR_FLAG_NO_AUTO_VALUE
};

/* Commands of a callback. One that it has nothing for answers 0. */
enum {
  VAR_CMD_AUTO_VALUE = 1,
  VAR_CMD_WRITE_BACKEND = 2,    /* answers 0 or an error code */
  VAR_CMD_NOTIFY_DEPENDERS = 3, /* answers 0 or the first error code */
  VAR_CMD_LIVE_READ = 4,
  VAR_CMD_SAMPLE_LIVE_READ = 5,
  VAR_CMD_UPDATE_PROPERTIES = 6,
  VAR_CMD_READ_VALUE = 7,
  VAR_CMD_INIT_PROPERTIES = 8,
  VAR_CMD_TRIGGER = 9 /* actions: answers 0 or an error code */
};

/* Modes of varSetValue_Sub. */
enum { VAR_SET_EVEN_READ_ONLY = 0x1, VAR_SET_AS_INDEX = 0x2 };

typedef struct VariableSet VariableSet;

/* Writes its answer to *result and returns result. record is the Variable or VarAction. */
typedef uint64_t *(*VarFunc)(uint32_t command, VariableSet *set, void *record, uint64_t *result);

typedef struct Variable {
  uint32_t name;
  uint64_t value, min, max;
  const uint32_t *items; /* symbol numbers, ended by 0 */
  uint32_t flags, enabled;
  VarFunc func;
  const char *description;
  uint64_t reserved;
} Variable;

typedef struct VarAction {
  uint32_t name, flags;
  VarFunc func;
  const char *description;
} VarAction;

/* One entry of the evaluation order; level 1 depends on nothing. */
typedef struct VarOrder {
  int32_t index, level;
} VarOrder;

struct VariableSet {
  const char *name, *version;
  int32_t count;
  Variable *variables;
  const VarOrder *order;
  int32_t action_count;
  VarAction *actions;
  int32_t max_symbol;
  const char *const *symbols;
  uint32_t auto_depth;         /* above 0 while automatic values are being recomputed */
  uint32_t backend_hold;       /* above 0 while nothing is written to the hardware */
  uint32_t properties_changed; /* until varsPropertiesUpdatedSinceLastCheck */
  void *owner;
  QTX_StackTrace *error_state;
};

/* ---- Lookup ---- */
QTX_API const char *sym_to_str(VariableSet *set, int32_t number);
QTX_API int32_t str_to_sym(VariableSet *set, const char *text);
QTX_API Variable *varNamed(VariableSet *set, const char *name);
QTX_API VarAction *varActionNamed(VariableSet *set, const char *name);
QTX_API int32_t varIndex(VariableSet *set, Variable *variable);
QTX_API const char *varGetName(VariableSet *set, Variable *variable);
QTX_API const char *varGetName_ByNumber(VariableSet *set, int32_t index);
QTX_API int32_t varGetType(VariableSet *set, Variable *variable, uint32_t *type);
QTX_API int32_t varGetType_ByName(VariableSet *set, const char *name, uint32_t *type);
QTX_API int32_t varGetProperties(VariableSet *set, Variable *variable, uint64_t *min, uint64_t *max, uint32_t *flags);
QTX_API int32_t varGetProperties_ByNumber(VariableSet *set, int32_t index, uint64_t *min, uint64_t *max,
                                          uint32_t *flags);
QTX_API int32_t varGetEnumsLength(VariableSet *set, Variable *variable);
QTX_API uint32_t varGetEnumsItem(VariableSet *set, Variable *variable, int32_t i);
QTX_API int32_t varGetEnumsItems(VariableSet *set, Variable *variable, uint32_t *items, int32_t *capacity);
/* Writes -1 and returns 1 when the symbol is no item. */
QTX_API int32_t varGetEnumIndex(VariableSet *set, Variable *variable, uint32_t symbol, int32_t *index);
QTX_API int32_t varListVariables(VariableSet *set, char *buffer, int32_t size);
QTX_API int32_t varListActions(VariableSet *set, char *buffer, int32_t size);
/* Appends a text form of the variable; the buffer's capacity is not known to it. */
QTX_API void varSprint(VariableSet *set, char *buffer, Variable *variable, int32_t verbose);

/* ---- Setting ---- */
QTX_API int32_t varSetValue_Sub(VariableSet *set, Variable *variable, uint64_t value, uint32_t mode);
QTX_API int32_t varSetValue(VariableSet *set, Variable *variable, uint64_t value);
QTX_API int32_t varSetIntValue(VariableSet *set, Variable *variable, int64_t value);
QTX_API int32_t varSetFloatValue(VariableSet *set, Variable *variable, double value);
QTX_API int32_t varSetValue_EvenReadOnly(VariableSet *set, Variable *variable, uint64_t value);
QTX_API int32_t varSetIntValue_EvenReadOnly(VariableSet *set, Variable *variable, int64_t value);
QTX_API int32_t varSetIndex(VariableSet *set, Variable *variable, int32_t index);
QTX_API int32_t varSetValue_ByNumber(VariableSet *set, int32_t number, uint64_t value);
QTX_API int32_t varSetIntValue_ByNumber(VariableSet *set, int32_t number, int64_t value);
QTX_API int32_t varSetValue_ByNumber_AsIndex(VariableSet *set, int32_t number, int32_t index);
QTX_API int32_t varSetIntValue_ByNmber_AsIndex(VariableSet *set, int32_t number, int32_t index);
QTX_API int32_t varSetValue_ByName(VariableSet *set, const char *name, uint64_t value);
QTX_API int32_t varSetValue_ByString(VariableSet *set, const char *name, const char *text);

/* ---- Reading ---- */
QTX_API int32_t varGetValue(VariableSet *set, Variable *variable, uint64_t *value);
QTX_API int32_t varGetValue_ByNumber(VariableSet *set, int32_t number, uint64_t *value);
QTX_API int32_t varGetValue_ByName(VariableSet *set, const char *name, uint64_t *value);
QTX_API int32_t varGetIntValue_ByNumber(VariableSet *set, int32_t number, int64_t *value);
QTX_API int32_t varGetIntValue_ByName(VariableSet *set, const char *name, int64_t *value);
/* The integer, or the item index of an enumeration; -1 when the read fails. */
QTX_API int64_t varGetValue_Real(VariableSet *set, Variable *variable);
QTX_API int32_t varGetLiveRead(VariableSet *set, Variable *variable, uint64_t *value);
QTX_API int32_t varSampleLiveread(VariableSet *set, Variable *variable);
QTX_API int32_t varGetAutoValue(VariableSet *set, Variable *variable, uint64_t *value);
QTX_API int32_t varUpdateBackend(VariableSet *set, Variable *variable);
QTX_API int32_t varValidValue(VariableSet *set, Variable *variable, uint64_t value);
QTX_API int32_t varPropertiesUpdated(VariableSet *set, Variable *variable);

/* ---- Whole sets, dependencies, actions ---- */
QTX_API int32_t varsInit(VariableSet *set);
QTX_API int32_t varsResetAll(VariableSet *set);
QTX_API int32_t varsResetAll_NoBackendUpdates(VariableSet *set, int32_t initial);
QTX_API int32_t varsCalculateAutoValues_NoBackendUpdates(VariableSet *set);
QTX_API int32_t varsInitProperties(VariableSet *set);
QTX_API int32_t varsUpdateProperties(VariableSet *set);
QTX_API int32_t varsUpdateProperties_NoUpdateVars(VariableSet *set);
QTX_API int32_t varsPropertiesUpdatedSinceLastCheck(VariableSet *set);
QTX_API int32_t varsUpdateAllBackends(VariableSet *set);
QTX_API int32_t varNotifyDependers(VariableSet *set, Variable *variable);
QTX_API int32_t varNotifyDependerAutovalue(VariableSet *set, Variable *dependent);
QTX_API int32_t varNotifyDependerProperties(VariableSet *set, Variable *dependent);
QTX_API int32_t varNotifyDependerBackend(VariableSet *set, Variable *dependent);
QTX_API int32_t varDependencyUpdated(VariableSet *set, Variable *dependent);
QTX_API int32_t varActionTrigger(VariableSet *set, VarAction *action);

#ifdef __cplusplus
}
#endif

#endif
