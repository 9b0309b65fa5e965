// The control threads: the command mailbox, the gimbal's speed stream, the delayed focus point and
// the RC report.
#pragma once

namespace nimbus {

/// Centres the focus point and starts the control threads, which never end. Main thread, once,
/// after the links are open.
void init_control() noexcept;

/// Notes that the focus point in the display region was moved; it is sent to the camera once it has
/// rested for 200 ms. RC thread.
void focus_point_moved() noexcept;

/// Reports tracking and histogram data that have stopped coming, once per loss. Main thread, once a
/// second.
void check_telemetry_timeouts() noexcept;

}  // namespace nimbus
