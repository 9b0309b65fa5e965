// What the main thread does for the life of the process.
#pragma once

#include "config/config.h"
#include "display/region.h"

namespace nimbus {

/// Expires silent viewers and sources, probes the access point, tells every viewer how things stand
/// and the supervisor that the loop goes round. Main thread.
void status_round(const DisplayRegion& display, Config& config) noexcept;

/// Does this again and again, with a pause of a second behind each. Main thread.
[[noreturn]] void run_status_loop(const DisplayRegion& display, Config& config) noexcept;

}  // namespace nimbus
