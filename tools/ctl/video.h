// The relayed video for a player.
#pragma once

#include "tools/ctl/viewer_link.h"

namespace nimbus::ctl {

/// `nimbusctl video`: writes the video to standard output, byte by byte as the camera's bridge sent
/// it. Until Ctrl-C when `seconds` is 0.
void show_video(const Connection& connection, double seconds);

}  // namespace nimbus::ctl
