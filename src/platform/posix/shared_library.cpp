#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "../platform.h"

namespace pulsekit::platform {

namespace {

// A library calls its own functions even where the program has others of the same names, as one does that is linked
// with the simulator. Sanitizers end the program at such a request.
int bindingFlags() {
#ifdef RTLD_DEEPBIND
  const bool sanitized =
      dlsym(RTLD_DEFAULT, "__asan_init") || dlsym(RTLD_DEFAULT, "__tsan_init") || dlsym(RTLD_DEFAULT, "__msan_init");
  return sanitized ? 0 : RTLD_DEEPBIND;
#else
  return 0;
#endif
}

}  // namespace

SharedLibrary::SharedLibrary(const char *file_name)
    : module_(dlopen(file_name, RTLD_NOW | RTLD_LOCAL | bindingFlags())) {
  if (module_) return;
  const char *reason = dlerror();
  if (!reason) return;
  // "<file>: reason": the caller knows the file.
  const size_t length = std::strlen(file_name);
  if (std::strncmp(reason, file_name, length) == 0 && std::strncmp(reason + length, ": ", 2) == 0) reason += length + 2;
  std::snprintf(failure_, sizeof failure_, "%s", reason);
}

SharedLibrary::~SharedLibrary() {
  if (module_) dlclose(module_);
}

void *SharedLibrary::find(const char *name) const { return module_ ? dlsym(module_, name) : nullptr; }

bool SharedLibrary::hasAt(uint16_t, const void *) const { return true; }

}  // namespace pulsekit::platform
