// The RC reader process gives, for each control function that is assigned to a live channel, a
// centred value (-1.0 to 1.0) and a position (0.0 to 1.0). Sticks act in proportion; switches act
// once per movement, which their latches see to. Anything may stand in the region: NaN pushes no
// switch, but it stops its axis of the gimbal for everybody, hides the OSD, chooses the first step
// of "ev", and puts a focus point at the edge of the picture.
#include "control/rc_input.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

#include "base/number.h"
#include "base/shell.h"
#include "camera/camera.h"
#include "camera/codes.h"
#include "camera/gimbal.h"
#include "camera/words.h"
#include "config/commands.h"
#include "config/config.h"
#include "config/writer.h"
#include "control/control.h"
#include "control/rc_map.h"
#include "control/speed_mixer.h"
#include "display/region.h"

namespace nimbus {
namespace {

// --- Policy ------------------------------------------------------------------------------------
constexpr useconds_t kPauseUs = 20'000;

constexpr double kSwitchOn = 0.5;      // record and shot switches, either way
constexpr double kLeverOn = 0.3;       // steps, positions and two-position switches
constexpr double kLeverCentred = 0.1;  // a step needs the lever back within this
constexpr double kSpeedPerPercent = 0.01;
constexpr double kFocusPerPercent = 0.0005;  // of the picture, each cycle

// The camera takes longer to get ready for a photo than for a recording.
constexpr useconds_t kIntoVideoUs = 200'000;
constexpr useconds_t kIntoPhotoUs = 500'000;

// --- What one cycle sees -----------------------------------------------------------------------

struct Receiver {
  DisplayRegion& display;
  Config& config;

  [[nodiscard]] bool in_charge() const {
    return config.rc_input_enabled != 0 && display.rc_status == kReceiverLive &&
           display.menu_active == 0;
  }
  [[nodiscard]] bool assigned(RcFunction function) const {
    return display.rc_function_assigned[index(function)] != 0;
  }
  [[nodiscard]] double centred(RcFunction function) const {
    return display.rc_function_centred[index(function)];
  }
  [[nodiscard]] double position(RcFunction function) const {
    return display.rc_function_position[index(function)];
  }
  [[nodiscard]] bool in_mode(std::uint8_t mode) const { return display.camera_mode == mode; }

 private:
  static std::size_t index(RcFunction function) { return static_cast<std::size_t>(function); }
};

// --- What is remembered from cycle to cycle ----------------------------------------------------
// RC thread only.

bool was_in_charge = false;
bool switch_latch = false;  // "record" and "record-shot" share it
bool centre_latch = false;
double last_focus_x = 0.0;
double last_focus_y = 0.0;
std::int32_t last_ev_index = 255;  // none yet, so that the first one is sent

// --- Sticks ------------------------------------------------------------------------------------

void steer(const Receiver& rc) {
  if (rc.config.rc_input_abs != 0) return;
  if (!rc.assigned(RcFunction::pan) || !rc.assigned(RcFunction::tilt)) return;
  set_command_speed(
      rc.centred(RcFunction::pan) * kSpeedPerPercent * rc.config.rc_input_speed_pan,
      rc.centred(RcFunction::tilt) * kSpeedPerPercent * rc.config.rc_input_speed_tilt,
      rc.centred(RcFunction::dutch) * kSpeedPerPercent * rc.config.rc_input_speed_dutch);
}

void stop_steering() {
  if (!was_in_charge) return;
  set_command_speed(0.0, 0.0, 0.0);
  was_in_charge = false;
}

/// Within the picture; NaN is at its edge.
double in_picture(double value) { return value > 0.0 ? std::min(value, 1.0) : 0.0; }

void move_focus_point(const Receiver& rc) {
  if (!rc.assigned(RcFunction::focus_pan) || !rc.assigned(RcFunction::focus_tilt)) return;
  auto& display = rc.display;
  const double x =
      in_picture(display.focus_point_x + rc.centred(RcFunction::focus_pan) * kFocusPerPercent *
                                             rc.config.rc_input_speed_pan);
  const double y =
      in_picture(display.focus_point_y + rc.centred(RcFunction::focus_tilt) * kFocusPerPercent *
                                             rc.config.rc_input_speed_tilt);
  display.focus_point_x = x;
  display.focus_point_y = y;
  if (x == last_focus_x && y == last_focus_y) return;
  focus_point_moved();
  last_focus_x = x;
  last_focus_y = y;
}

void set_ev(const Receiver& rc) {
  if (!rc.assigned(RcFunction::ev)) return;
  constexpr double kSteps = kEvSteps.size();
  const auto index = std::clamp<std::int32_t>(
      to_integer<std::int32_t>(rc.position(RcFunction::ev) * kSteps), 0, kEvSteps.size() - 1);
  if (index == last_ev_index) return;
  camera_set_ev(kEvSteps[static_cast<std::size_t>(index)].value);
  last_ev_index = index;
}

// --- Record and photo switches -----------------------------------------------------------------

void stop_recording(const Receiver& rc) {
  if (rc.in_mode(kVideoMode)) camera_record(0);
  switch_latch = false;
}

/// Up: a photo or the start of a recording, by the camera's mode. Down: the recording's end.
void record(const Receiver& rc) {
  if (!rc.assigned(RcFunction::record)) return;
  const double value = rc.centred(RcFunction::record);
  if (value > kSwitchOn && !switch_latch) {
    if (rc.in_mode(kPhotoMode)) {
      camera_shot();
    } else {
      camera_record(1);
    }
    switch_latch = true;
  } else if (value <= kSwitchOn && switch_latch) {
    stop_recording(rc);
  }
}

/// Up: a recording. Down: a photo. Each switches the camera's mode first.
void record_or_shoot(const Receiver& rc) {
  if (!rc.assigned(RcFunction::record_shot)) return;
  const double value = rc.centred(RcFunction::record_shot);
  if (value > kSwitchOn && !switch_latch) {
    if (!rc.in_mode(kVideoMode)) {
      camera_set_mode(kVideoMode);
      usleep(kIntoVideoUs);
    }
    camera_record(1);
    switch_latch = true;
  } else if (value < -kSwitchOn && !switch_latch) {
    if (!rc.in_mode(kPhotoMode)) {
      camera_set_mode(kPhotoMode);
      usleep(kIntoPhotoUs);
    }
    camera_shot();
    switch_latch = true;
  } else if (-kSwitchOn <= value && value <= kSwitchOn && switch_latch) {
    stop_recording(rc);
  }
}

// --- Stepped settings --------------------------------------------------------------------------

constexpr std::array<const char*, 4> kExposureModeSteps{"auto", "manual", "shutter", "aperture"};

// While it films, the camera exposes no longer than this.
constexpr std::string_view kSlowestFilmShutter = "25";
constexpr auto kSlowestFilmShutterStep = static_cast<std::int32_t>(
    std::find(kShutterTexts.begin(), kShutterTexts.end(), kSlowestFilmShutter) -
    kShutterTexts.begin());

std::int32_t lowest_shutter_step(const Receiver& rc) {
  return rc.in_mode(kVideoMode) ? kSlowestFilmShutterStep : 0;
}
std::int32_t lowest_step(const Receiver& /*unused*/) { return 0; }

/// A setting that a lever moves by one step each time that it leaves its centre. The first step
/// after start is sent even if the lever rests.
struct SteppedSetting {
  RcFunction function;
  std::int32_t highest_step;
  std::int32_t (*lowest)(const Receiver&);
  void (*perform)(std::size_t step);

  bool latch = false;
  std::int32_t step = 0;
  std::int32_t sent_step = -1;

  void cycle(const Receiver& rc) {
    if (!rc.assigned(function)) return;
    const double value = rc.centred(function);
    if (!latch) {
      if (value > kLeverOn) move(1);
      if (value < -kLeverOn) move(-1);
      step = std::clamp(step, lowest(rc), highest_step);
    }
    if (-kLeverCentred < value && value < kLeverCentred) latch = false;
    if (step == sent_step) return;
    perform(static_cast<std::size_t>(step));
    sent_step = step;
  }

 private:
  void move(std::int32_t by) {
    step += by;
    latch = true;
  }
};

constinit std::array<SteppedSetting, 3> stepped_settings{{
    {RcFunction::iso, kIsoWords.size() - 1, lowest_step,
     [](std::size_t step) { camera_set_iso(kIsoWords[step].value); }},
    {RcFunction::shutter, kShutterTexts.size() - 1, lowest_shutter_step,
     [](std::size_t step) { camera_set_shutter(kShutterTexts[step].data()); }},
    {RcFunction::videomode, kExposureModeSteps.size() - 1, lowest_step,
     [](std::size_t step) { camera_set_exposure_mode(kExposureModeSteps[step]); }},
}};

// --- Levers and two-position switches ----------------------------------------------------------

void centre(const Receiver& rc) {
  if (!rc.assigned(RcFunction::centre)) return;
  const double value = rc.centred(RcFunction::centre);
  if (value > kLeverOn) {
    if (!centre_latch) gimbal_set_next_position();
    centre_latch = true;
  } else if (value <= kLeverOn) {
    centre_latch = false;
  }
}

void hide_osd(const Receiver& rc) {
  if (!rc.assigned(RcFunction::osd)) return;
  rc.display.osd_enabled = rc.centred(RcFunction::osd) < kLeverOn ? 1 : 0;
}

void switch_internal_camera(const Receiver& rc, std::uint8_t fullscreen) {
  rc.config.internal_camera_fullscreen = fullscreen;
  rc.display.internal_camera_fullscreen = fullscreen;
  config_save();
  run_shell(kEndCamera);
}

void lock_orientation(const Receiver& rc, std::uint8_t lock) {
  gimbal_set_orientation(lock);
  rc.display.orientation_lock = lock;
}

/// A switch that acts when its position changes. It is taken to be down at start; NaN leaves
/// it where it is.
struct TwoPositionSwitch {
  RcFunction function;
  void (*act)(const Receiver&, std::uint8_t up);

  std::uint8_t latch = 0;

  void cycle(const Receiver& rc) {
    if (!rc.assigned(function)) return;
    const double value = rc.centred(function);
    const std::uint8_t up = value > kLeverOn ? 1 : 0;
    if (up == latch || std::isnan(value)) return;
    act(rc, up);
    latch = up;
  }
};

constinit std::array<TwoPositionSwitch, 2> two_position_switches{{
    {RcFunction::intcamera, switch_internal_camera},
    {RcFunction::orient_lock, lock_orientation},
}};

}  // namespace

void rc_input_cycle() noexcept {
  const Receiver rc{*display_region(), *config_get()};
  if (!rc.in_charge()) {
    stop_steering();
    return;
  }
  was_in_charge = true;
  steer(rc);
  record(rc);
  record_or_shoot(rc);
  set_ev(rc);
  move_focus_point(rc);
  for (auto& setting : stepped_settings) setting.cycle(rc);
  centre(rc);
  hide_osd(rc);
  for (auto& each : two_position_switches) each.cycle(rc);
}

void* rc_input_thread(void* /*unused*/) noexcept {
  for (;;) {
    rc_input_cycle();
    usleep(kPauseUs);
  }
}

}  // namespace nimbus
