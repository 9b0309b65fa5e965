// The RC reader's side of the shared region.
#pragma once

#include "app/display_region.h"
#include "tools/sim/rc_script.h"

namespace nimbus::sim {

/// Writes what the receiver says, as the RC reader process does again and again: the raw channels,
/// and for each function whether it is assigned to a live channel and what that says. Which channel
/// drives which function is read from the region, where the service has published it.
void write_receiver(const RcReceiver& receiver, DisplayRegion& display);

}  // namespace nimbus::sim
