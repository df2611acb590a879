// The handles of the layers that the library has made. Hosts know the layout of these records up to where their private
// fields begin, and may make such records themselves: those end there.
#pragma once

namespace pulsekit {

// False when memory is short.
bool addOwnRecord(const void *record);
void removeOwnRecord(const void *record);
bool isOwnRecord(const void *record);

}  // namespace pulsekit
