// What a host does first: create a handle, ask what is supported, read an error.
#include <cstdio>

#include "Pulsekit3.h"

int main() {
  QTX_Handle *radar = nullptr;
  if (int32_t code = QTX_InitHandle(&radar)) {
    std::printf("%s\n", GetErrorMessage(code));
    return 1;
  }
  std::printf("%s %s\n", QTX_SupportName(), QTX_SupportVersion());
  char text[512];
  QTX_GetErrorDescription(radar, text, sizeof text, 0);
  std::printf("%s\n", text);
  return QTX_FreeHandle(&radar);
}
