#include "Pulsekit3_helpers.h"

#include <algorithm>
#include <cstring>

static constexpr const char kSource[] = "src/support/Pulsekit3_helpers";

namespace pulsekit {

namespace {

template <size_t capacity>
void copyField(char (&field)[capacity], std::string_view text, size_t start = 0) {
  const size_t length = std::min(text.size(), capacity - 1 - start);
  std::memcpy(field + start, text.data(), length);
  field[start + length] = '\0';
}

}  // namespace

int32_t findVariable_ByName(const LookupOrder &sets, QTX_StackTrace *record, const char *name, Variable **variable,
                            VariableSet **set) {
  for (VariableSet *candidate : sets) {
    *variable = candidate ? varNamed(candidate, name) : nullptr;
    *set = candidate;
    if (*variable) return kSuccess;
  }
  return origin(record, HERE_AT(124), kUnknownVariable, name);
}

int32_t findAction_ByName(const LookupOrder &sets, QTX_StackTrace *record, const char *name, VarAction **action,
                          VariableSet **set) {
  for (VariableSet *candidate : sets) {
    *action = candidate ? varActionNamed(candidate, name) : nullptr;
    *set = candidate;
    if (*action) return kSuccess;
  }
  return origin(record, HERE, kUnknownAction, name);
}

int32_t connectionStringToConnectionInfo(const char *text, ConnectionInfo *info) {
  *info = {};
  std::string_view rest = text ? text : "";
  const char delimiter = QTX_ConnectionStringDelimiter1();
  int32_t field = 0;
  for (size_t end = rest.find(delimiter); end != rest.npos; end = rest.find(delimiter), ++field) {
    const std::string_view value = rest.substr(0, end);
    rest.remove_prefix(end + 1);
    if (field == 0) {
      copyField(info->interface_name, value);
    } else if (field == 1) {
      const size_t length = std::strlen(info->interface_name);
      std::memcpy(info->interface_connection, info->interface_name, length);
      info->interface_connection[length] = delimiter;
      copyField(info->interface_connection, value, length + 1);
    } else if (field == 2) {
      copyField(info->module_name, value);
    } else {
      copyField(info->chip_name, value);
      return kError;
    }
  }
  if (field == 0) return kError;
  copyField(info->chip_name, rest);
  return kSuccess;
}

void storeConnectionString(QTX_Handle *handle, const char *text) {
  const size_t length = strnlen(text, sizeof handle->connection_string);
  std::memmove(handle->connection_string, text, length);
  std::memset(handle->connection_string + length, 0, sizeof handle->connection_string - length);
}

TextBuffer::TextBuffer(char *buffer, int64_t size) : buffer_(buffer), size_(size) {
  if (size_ > 0) buffer_[0] = '\0';
}

bool TextBuffer::append(std::string_view addition) {
  const int64_t length = length_ + static_cast<int64_t>(addition.size());
  if (length > size_) {
    if (size_ > 0) buffer_[std::min(length_, size_ - 1)] = '\0';
    return false;
  }
  if (!addition.empty()) std::memcpy(buffer_ + length_, addition.data(), addition.size());
  length_ = length;
  if (length_ < size_) buffer_[length_] = '\0';
  return true;
}

}  // namespace pulsekit
