// What the pilot's receiver does to the camera and the gimbal.
#pragma once

namespace nimbus {

/// Steers by the values that the RC reader writes into the display region, every 20 ms for the life
/// of the process. May be held for 500 ms by a photo switch, and by a save of the configuration.
/// Entry point of the RC thread, after init_control() has what it needs.
void* rc_input_thread(void* unused) noexcept;

/// One cycle of it, without the pause. RC thread.
void rc_input_cycle() noexcept;

}  // namespace nimbus
