// Opening and releasing the layers of a library handle, for the sources of the exported functions.
#pragma once

#include "support/QTX_Handle.h"

namespace pulsekit {

// Whether the handle's bridge is connected, be it by an open radar or half-way.
bool interfaceIsConnected(const QTX_Handle *handle);

// Frees chip, module and interface, which closes the device, and keeps the record as it is.
void releaseLayers(QTX_Handle *handle);

// Frees the interface that a failed open or close has left on the handle. One that a host has made itself stays.
void releaseLeftInterface(QTX_Handle *handle);

}  // namespace pulsekit
