#include "own_records.h"

#include "registry.h"

namespace pulsekit {

namespace {

struct Nothing {};
constinit Registry<Nothing> registry;

}  // namespace

bool addOwnRecord(const void *record) { return registry.add(record) != nullptr; }

void removeOwnRecord(const void *record) { registry.remove(record); }

bool isOwnRecord(const void *record) { return registry.find(record) != nullptr; }

}  // namespace pulsekit
