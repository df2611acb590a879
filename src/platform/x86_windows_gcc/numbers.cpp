#include <locale.h>
#include <stdlib.h>

#include "../platform.h"

namespace pulsekit::platform {

double realOf(const char *text) {
  static const _locale_t c_locale = _create_locale(LC_ALL, "C");
  return c_locale ? _strtod_l(text, nullptr, c_locale) : strtod(text, nullptr);
}

}  // namespace pulsekit::platform
