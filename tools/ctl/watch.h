// Everything that the service tells its viewers, as it comes.
#pragma once

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

struct WatchOptions {
  bool json = false;
  double seconds = 0;  ///< 0: until Ctrl-C
};

/// `nimbusctl watch`.
void watch(const Connection& connection, const WatchOptions& options);

}  // namespace nimbus::ctl
