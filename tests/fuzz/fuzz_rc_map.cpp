// Any channel map gives every channel a known function or none.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "app/display_region.h"
#include "control/rc_map.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static nimbus::DisplayRegion* const region = nimbus::map_display_region();
  if (region == nullptr) std::abort();
  nimbus::parse_rc_input_map({reinterpret_cast<const char*>(bytes), size});
  for (const std::uint8_t code : region->rc_channel_map) {
    if (code > static_cast<std::uint8_t>(nimbus::RcFunction::orient_lock) && code != 255) {
      std::abort();
    }
  }
  return 0;
}
