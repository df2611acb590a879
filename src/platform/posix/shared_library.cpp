#include <dlfcn.h>

#include "../platform.h"

namespace pulsekit::platform {

SharedLibrary::SharedLibrary(const char *file_name) : module_(dlopen(file_name, RTLD_NOW | RTLD_LOCAL)) {}

SharedLibrary::~SharedLibrary() {
  if (module_) dlclose(module_);
}

void *SharedLibrary::find(const char *name, uint16_t) const { return module_ ? dlsym(module_, name) : nullptr; }

}  // namespace pulsekit::platform
