// Lists of supported drivers: "<name> (<driver>),<name> (<driver>)".
#pragma once

#include <cstdint>

namespace pulsekit {

// Appends an entry, behind a comma unless the list is empty. Code 2, without an entry, when it does not fit size
// characters with the terminator; nothing is traced.
int32_t appendDriver(char *list, int32_t size, const char *name, const char *driver);

}  // namespace pulsekit
