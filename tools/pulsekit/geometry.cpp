#include "geometry.h"

namespace tool {

Geometry frameGeometry(const Radar &radar) {
  const double half_c = 299792458.0 / 2;
  const double step = static_cast<double>(1 << radar.whole("Downsampling")) / radar.number("SamplesPerSecond");
  const double first = radar.number("SampleDelay");
  return {radar.whole("SamplersPerFrame"), first, step, first * half_c, step * half_c};
}

}  // namespace tool
