// Any channel map gives every channel a known function or none.
#include <cstdint>

#include "control/rc_map.h"
#include "display/region.h"
#include "tests/fuzz/invariants.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static nimbus::DisplayRegion* const region = nimbus::map_display_region();
  nimbus::fuzz::require(region != nullptr);
  nimbus::parse_rc_input_map({reinterpret_cast<const char*>(bytes), size});
  nimbus::fuzz::require_channel_map(*region);
  return 0;
}
