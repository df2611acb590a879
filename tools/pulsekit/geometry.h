// What the settings mean for a frame.
#pragma once

#include "radar.h"

namespace tool {

struct Geometry {
  size_t samplers;
  double first_time, time_step, first_range, range_step;
  double range(size_t sampler) const { return first_range + range_step * static_cast<double>(sampler); }
};

Geometry frameGeometry(const Radar &radar);

}  // namespace tool
