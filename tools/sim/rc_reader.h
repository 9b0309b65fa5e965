// The RC reader's side of the shared region.
#pragma once

#include <utility>

#include "display/region.h"
#include "tools/sim/rc_script.h"

namespace nimbus::sim {

/// Writes what the receiver says, as the RC reader process does again and again: the raw channels,
/// and for each function whether it is assigned to a live channel and what that says. Which channel
/// drives which function is read from the region, where the service has published it.
void write_receiver(const RcReceiver& receiver, DisplayRegion& display);

/// Plays a script into the region, and switches the receiver off in the end: sticks that nobody
/// holds any more must not steer.
class RcPlayback {
 public:
  RcPlayback(RcScript script, DisplayRegion& display)
      : player_(std::move(script)), display_(display) {}
  RcPlayback(const RcPlayback&) = delete;
  RcPlayback& operator=(const RcPlayback&) = delete;
  ~RcPlayback();

  /// Writes what the receiver says so many seconds after the start.
  void play(double seconds);

 private:
  RcPlayer player_;
  RcReceiver receiver_;
  DisplayRegion& display_;
};

}  // namespace nimbus::sim
