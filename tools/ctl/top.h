// What the service does, on one screen of a terminal.
#pragma once

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

/// `nimbusctl top`: until "q" or Ctrl-C; 0 `seconds` is no end. Leaves the terminal as it was.
/// Throws Failure where there is none, or one that has no screen.
void show_top(const Connection& connection, double seconds);

}  // namespace nimbus::ctl
