// The display region of this board, as a process beside the service sees it.
#pragma once

#include "display/region.h"
#include "tools/ctl/value.h"

namespace nimbus::ctl {

/// Everything in the region, under the names of its fields; flags and codes in words.
[[nodiscard]] Fields decode_region(const DisplayRegion& region);

struct HudOptions {
  bool json = false;
  bool follow = false;  ///< goes on and prints what changes
  double seconds = 0;   ///< how long it follows; 0: until Ctrl-C
};

/// `nimbusctl hud`. Throws Failure when this board has no region of the right size.
void show_hud(const HudOptions& options);

}  // namespace nimbus::ctl
