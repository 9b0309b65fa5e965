// The gimbal's speed: the sum of what viewers and commands ask for, streamed to the gimbal.
//
// Speeds may be set by any thread at any rate; only the stream sends them, every 30 ms while their
// sum is not zero. A sum of zero is sent once by whoever set it, each time that he sets it. What is
// promised: the last frame after that is a zero one, never a stale speed, and a sum that is not
// zero is always streamed.
#pragma once

namespace nimbus {

/// Takes a viewer's speed message: 4000 is 1.0, that is 1000 on the wire. Any mode but 1 is
/// ignored. Viewer link's receive thread, from the first datagram on.
void set_viewer_speed(int mode, int pan, int tilt, int roll) noexcept;

/// Takes a speed from a command or the RC receiver; 1.0 is 1000 on the wire. Control thread, RC
/// thread.
void set_command_speed(double pan, double tilt, double roll) noexcept;

/// One cycle of the stream: sends the summed speed while there is one, otherwise, while the
/// orientation is locked, the frame that holds it. Speed stream thread.
void stream_speed(bool orientation_locked) noexcept;

}  // namespace nimbus
