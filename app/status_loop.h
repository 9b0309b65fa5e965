// What the main thread does for the life of the process.
#pragma once

#include "config/config.h"
#include "display/region.h"

namespace nimbus {

/// Once a second: expires silent viewers and sources, probes the access point, tells every viewer
/// how things stand and the supervisor that the loop goes round. The period is a second plus the
/// time of the work. Main thread.
[[noreturn]] void run_status_loop(const DisplayRegion& display, Config& config);

}  // namespace nimbus
