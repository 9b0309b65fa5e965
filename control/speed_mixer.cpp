#include "control/speed_mixer.h"

#include <cstdint>

#include "base/shared.h"
#include "camera/gimbal.h"
#include "config/config.h"
#include "net/messages.h"

namespace nimbus {
namespace {

struct Speed {
  double pan;
  double tilt;
  double roll;
};

/// A speed as the threads share it, one axis at a time.
struct SharedSpeed {
  Shared<double> pan;
  Shared<double> tilt;
  Shared<double> roll;
};

struct SpeedMixer {
  SharedSpeed viewer;
  SharedSpeed command;
  Shared<std::uint8_t> active;  // 1: the sum is not zero and the stream must run
};

SpeedMixer mixer;

Speed sum() {
  return {mixer.viewer.pan + mixer.command.pan, mixer.viewer.tilt + mixer.command.tilt,
          mixer.viewer.roll + mixer.command.roll};
}

bool is_zero(const Speed& speed) {
  return speed.pan == 0.0 && speed.tilt == 0.0 && speed.roll == 0.0;
}

/// Inversion is a setting of each axis, applied once, where a speed enters.
double inverted(double speed, std::int32_t inverse) { return inverse != 0 ? -speed : speed; }

void set(SharedSpeed& source, const Speed& speed) {
  const Config& config = *config_get();
  source.pan = inverted(speed.pan, config.rc_input_inverse_pan);
  source.tilt = inverted(speed.tilt, config.rc_input_inverse_tilt);
  source.roll = inverted(speed.roll, config.rc_input_inverse_dutch);
  // Another setter may do the same at this moment. The exchange sees what it stored before it set
  // `active`: only a flag that still fits the sum afterwards stays.
  for (;;) {
    const bool moves = !is_zero(sum());
    mixer.active.exchange(moves ? 1 : 0);
    if (is_zero(sum()) == moves) continue;
    if (moves) return;
    break;
  }
  gimbal_speed(0.0, 0.0, 0.0);
}

}  // namespace

void set_viewer_speed(int mode, int pan, int tilt, int roll) noexcept {
  constexpr double kUnit = 0.00025;
  if (mode != SpeedMessage::kSets) return;
  set(mixer.viewer, {pan * kUnit, tilt * kUnit, roll * kUnit});
}

void set_command_speed(double pan, double tilt, double roll) noexcept {
  set(mixer.command, {pan, tilt, roll});
}

void stream_speed(bool orientation_locked) noexcept {
  if (mixer.active.load_acquire() != 0) {
    const Speed speed = sum();
    gimbal_speed(speed.pan, speed.tilt, speed.roll);
    // A setter may have stopped the gimbal since the test above; its zero frame must not be
    // followed by this old speed alone.
    if (mixer.active.load_acquire() == 0) gimbal_speed(0.0, 0.0, 0.0);
  } else if (orientation_locked) {
    gimbal_speed_raw(1, 0, 0);
  }
}

}  // namespace nimbus
