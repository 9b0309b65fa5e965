// Anybody on the network can put a text here, of up to 511 bytes of anything. It is parsed as JSON,
// only text members are looked at, and words count only when they match a row of the table exactly.
#include "control/interpreter.h"

#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/json.h"
#include "base/log.h"
#include "base/number.h"
#include "base/word_table.h"
#include "camera/camera.h"
#include "camera/gimbal.h"
#include "camera/words.h"
#include "control/speed_mixer.h"
#include "display/region.h"

namespace nimbus {
namespace {

/// The members of a command. They live as long as the parsed text.
struct Command {
  const char* cmd;                   ///< empty when absent
  const char* param;                 ///< empty when absent
  std::array<const char*, 4> value;  ///< each null when absent

  [[nodiscard]] bool has(std::size_t values) const {
    for (std::size_t i = 0; i < values; ++i) {
      if (value[i] == nullptr) return false;
    }
    return true;
  }
  [[nodiscard]] int integer(std::size_t i) const { return parse_i32(value[i]); }
  [[nodiscard]] float real(std::size_t i) const {
    return static_cast<float>(std::strtod(value[i], nullptr));
  }
  [[nodiscard]] bool value_is(std::string_view word) const {
    return value[0] != nullptr && value[0] == word;
  }
};

enum class AfterRow { go_on, stop };

// --- Actions -----------------------------------------------------------------------------------

AfterRow set_camera_mode(const Command& command) {
  if (!command.has(1)) return AfterRow::go_on;
  if (const auto* const mode = find_word(kCameraModes, command.value[0])) camera_set_mode(*mode);
  return AfterRow::go_on;
}

// The camera takes a new exposure point or area only between two changes of the lock.
constexpr useconds_t kExposureSettlesUs = 100'000;

AfterRow set_exposure_point(const Command& command) {
  if (!command.has(1)) return AfterRow::go_on;
  camera_set_ae_lock(0);
  usleep(kExposureSettlesUs);
  camera_set_exposure_point(static_cast<std::uint8_t>(command.integer(0)));
  usleep(kExposureSettlesUs);
  camera_set_ae_lock(1);
  return AfterRow::go_on;
}

AfterRow set_exposure_centre(const Command& /*unused*/) {
  camera_set_ae_lock(0);
  usleep(kExposureSettlesUs);
  camera_set_exposure_centre();  // and the lock stays off
  return AfterRow::go_on;
}

AfterRow set_exposure_lock(const Command& command) {
  if (command.value_is("lock")) camera_set_ae_lock(1);
  if (command.value_is("unlock")) camera_set_ae_lock(0);
  return AfterRow::go_on;
}

AfterRow set_focus_point(const Command& command) {
  if (command.has(2)) camera_set_focus_point(command.real(0), command.real(1));
  return AfterRow::go_on;
}

AfterRow end(const Command& /*unused*/) { return AfterRow::stop; }

AfterRow move_relative(const Command& command) {
  if (!command.has(2)) return AfterRow::stop;
  constexpr double kUnit = 0.00025;
  const double roll = command.has(3) ? command.integer(2) * kUnit : 0.0;
  set_command_speed(command.integer(0) * kUnit, command.integer(1) * -kUnit, roll);
  return AfterRow::stop;
}

/// Unlike the relative move, this takes the numbers as they are.
AfterRow set_speed(const Command& command) {
  if (!command.has(3)) return AfterRow::stop;
  set_command_speed(command.integer(0), command.integer(1), command.integer(2));
  return AfterRow::stop;
}

/// Whether the gimbal looks back at its operator.
bool looks_back() {
  constexpr std::int16_t kFrom = -229;
  constexpr std::int16_t kTo = -131;
  const std::int16_t angle = display_region()->gimbal_angle_1;
  return kFrom <= angle && angle <= kTo;
}

AfterRow set_position_normal(const Command& /*unused*/) {
  log_text("Set position normal\n");
  if (looks_back()) {
    gimbal_set_next_position();
  } else {
    gimbal_set_centre_position();
  }
  return AfterRow::go_on;
}

AfterRow set_position_selfie(const Command& /*unused*/) {
  log_text("Set position selfie\n");
  if (looks_back()) {
    gimbal_set_centre_position();
  } else {
    gimbal_set_next_position();
  }
  return AfterRow::go_on;
}

AfterRow start_tracking(const Command& command) {
  if (!command.has(4)) return AfterRow::stop;
  tracking_start({command.real(0), command.real(1), command.real(2), command.real(3)});
  return AfterRow::go_on;
}

AfterRow set_white_balance(const Command& command) {
  camera_set_white_balance(command.param, command.value[0]);
  return AfterRow::go_on;
}

AfterRow set_iso(const Command& command) {
  if (const int* const iso = find_word(kIsoWords, command.param)) camera_set_iso(*iso);
  return AfterRow::go_on;
}

AfterRow set_video_resolution(const Command& command) {
  if (const auto* const format = find_word(kVideoFormats, command.param)) {
    camera_set_video_resolution(format->width, format->height, format->fps);
  }
  return AfterRow::go_on;
}

void set_orientation(std::uint8_t lock) {
  gimbal_set_orientation(lock);
  display_region()->orientation_lock = lock;
}

// --- The table ---------------------------------------------------------------------------------

/// An action that is one operation: on nothing, on "param", or on "value1" where there is one.
template <auto operation>
AfterRow run(const Command& /*unused*/) {
  operation();
  return AfterRow::go_on;
}
template <auto operation, int argument>
AfterRow run_with(const Command& /*unused*/) {
  operation(argument);
  return AfterRow::go_on;
}
template <auto operation>
AfterRow run_with_param(const Command& command) {
  operation(command.param);
  return AfterRow::go_on;
}
template <auto operation>
AfterRow run_with_value(const Command& command) {
  if (command.has(1)) operation(command.value[0]);
  return AfterRow::go_on;
}

void set_histogram(const char* enable) { camera_set_histogram(parse_i32(enable)); }
void set_aperture(const char* f_number) {
  camera_set_aperture(static_cast<float>(std::strtod(f_number, nullptr)));
}
void set_ev(const char* value) { camera_set_ev(std::strtod(value, nullptr)); }

struct Row {
  std::string_view cmd;
  const char* param;  ///< null: any, and the action may use it as its argument
  AfterRow (*action)(const Command&);
};

constexpr const char* kAny = nullptr;

// Rows are tested one after the other, each by itself: a command may match several.
constexpr auto kRows = std::to_array<Row>({
    // clang-format off
    {"camera",           "mode",      set_camera_mode},
    {"horizont",         "calibrate", run<gimbal_calibrate>},
    {"exposure",         "point",     set_exposure_point},
    {"exposure",         "center",    set_exposure_centre},
    {"exposure",         "auto",      set_exposure_lock},
    {"focus",            "type",      run_with_value<camera_set_focus_type>},
    {"focus",            "point",     set_focus_point},
    {"position",         "move",      end},
    {"position",         "moverel",   move_relative},
    {"position",         "speed",     set_speed},
    {"position",         "normal",    set_position_normal},
    {"position",         "selfie",    set_position_selfie},
    {"gimbal",           "mode",      run_with_value<gimbal_set_mode>},
    {"gimbal",           "follow",    run_with_value<gimbal_set_follow_mode>},
    {"tracking",         "start",     start_tracking},
    {"tracking",         "stop",      run<tracking_stop>},
    {"color",            kAny,        run_with_param<camera_set_colour>},
    {"wb",               kAny,        set_white_balance},
    {"shot",             kAny,        run<camera_shot>},
    {"shotmode",         kAny,        run_with_param<camera_set_shot_mode>},
    {"record",           "start",     run_with<camera_record, 1>},
    {"record",           "stop",      run_with<camera_record, 0>},
    {"hystogram",        kAny,        run_with_param<set_histogram>},
    {"video_mode",       kAny,        run_with_param<camera_set_exposure_mode>},
    {"shutter",          kAny,        run_with_param<camera_set_shutter>},
    {"aperture",         kAny,        run_with_param<set_aperture>},
    {"iso",              kAny,        set_iso},
    {"ev",               kAny,        run_with_param<set_ev>},
    {"video_resolution", kAny,        set_video_resolution},
    {"video_aspect",     kAny,        run_with_param<camera_set_aspect_ratio>},
    {"antiflicker",      kAny,        run_with_param<camera_set_anti_flicker>},
    {"formatmicrosd",    kAny,        run<camera_format_card>},
    {"resetcamera",      kAny,        run<camera_reset>},
    {"orientation",      "lock",      run_with<set_orientation, 1>},
    {"orientation",      "unlock",    run_with<set_orientation, 0>},
    // On purpose a second time: a colour command has always gone to the camera twice.
    {"color",            kAny,        run_with_param<camera_set_colour>},
    // clang-format on
});

bool matches(const Row& row, const Command& command) {
  return command.cmd == row.cmd &&
         (row.param == kAny || command.param == std::string_view(row.param));
}

}  // namespace

void interpret_command(const char* text) noexcept {
  const JsonObject json(text);
  const Command command{
      .cmd = json.text_or_empty("cmd"),
      .param = json.text_or_empty("param"),
      .value = {json.text("value1"), json.text("value2"), json.text("value3"), json.text("value4")},
  };
  for (const Row& row : kRows) {
    if (matches(row, command) && row.action(command) == AfterRow::stop) return;
  }
}

}  // namespace nimbus
