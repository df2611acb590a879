#include <locale.h>
#include <stdlib.h>

#include "../platform.h"

namespace pulsekit::platform {

const size_t kExponentDigits = 2;

double realOf(const char *text) {
  static const locale_t c_locale = newlocale(LC_ALL_MASK, "C", nullptr);
  return c_locale ? strtod_l(text, nullptr, c_locale) : strtod(text, nullptr);
}

}  // namespace pulsekit::platform
