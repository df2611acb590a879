// Building blocks of the exported functions: lookup of names across variable sets, connection strings, texts in buffers
// of the host.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "QTX_Handle.h"
#include "trace.h"
#include "vars.h"

namespace pulsekit {

// ---- Lookup ----

// The sets in which a name is looked up, first to last; null where a layer has none.
using LookupOrder = std::array<VariableSet *, 3>;

// 1283 with the name as detail.
int32_t findVariable_ByName(const LookupOrder &sets, QTX_StackTrace *record, const char *name, Variable **variable,
                            VariableSet **set);
// 1284 with the name as detail.
int32_t findAction_ByName(const LookupOrder &sets, QTX_StackTrace *record, const char *name, VarAction **action,
                          VariableSet **set);

// ---- Connection strings ----

// Fills the record from "<interface>!<device>!<module>!<chip>"; every field is cut at its capacity. With fewer fields
// the last one is the chip name. Returns 1 for a text without '!' or with more than four fields, else 0.
int32_t connectionStringToConnectionInfo(const char *text, ConnectionInfo *info);

// Cut at the capacity, without a terminator when it is reached.
void storeConnectionString(QTX_Handle *handle, const char *text);

// ---- Texts ----

// A text that grows in a buffer of the host. A text exactly as long as the buffer fills it without a terminator.
class TextBuffer {
 public:
  TextBuffer(char *buffer, int64_t size);
  bool empty() const { return length_ == 0; }
  // False, and a terminated text, when the addition does not fit.
  bool append(std::string_view addition);

 private:
  char *buffer_;
  int64_t size_;
  int64_t length_ = 0;
};

}  // namespace pulsekit
