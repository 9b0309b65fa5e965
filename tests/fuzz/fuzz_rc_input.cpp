// Whatever the RC reader and the settings say, cycle after cycle, the focus point stays within the
// picture, flags stay flags, and the camera gets sound frames only. The input is the region's RC
// part of each cycle, one after the other.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "config/config.h"
#include "control/rc_input.h"
#include "control/rc_map.h"
#include "control/speed_mixer.h"
#include "display/region.h"
#include "tests/fuzz/board.h"
#include "tests/fuzz/invariants.h"

namespace {

using nimbus::DisplayRegion;
using nimbus::RcFunction;
using nimbus::fuzz::require;

// The settings, the camera's mode and the focus point also come from others.
struct Others {
  std::uint8_t camera_mode;
  std::uint8_t absolute;
  std::int32_t speed_pan;
  std::int32_t speed_tilt;
  double focus_point_x;
  double focus_point_y;
};

// From the functions that are assigned to the menu's flag.
constexpr std::size_t kRcBegin = offsetof(DisplayRegion, rc_function_assigned);
constexpr std::size_t kRcEnd = offsetof(DisplayRegion, command_mailbox);
constexpr std::size_t kCycle = sizeof(Others) + kRcEnd - kRcBegin;

DisplayRegion* prepare() {
  DisplayRegion* const region = nimbus::map_display_region();
  require(region != nullptr);
  nimbus::fuzz::connect_camera();
  nimbus::fuzz::set_tools({}, 0);
  return region;
}

void take_over(const Others& others, DisplayRegion& region, nimbus::Config& config) {
  region.camera_mode = others.camera_mode;
  config.rc_input_abs = others.absolute % 2;
  config.rc_input_speed_pan = others.speed_pan;
  config.rc_input_speed_tilt = others.speed_tilt;
  region.focus_point_x = others.focus_point_x;
  region.focus_point_y = others.focus_point_y;
}

/// What a cut cycle lacks stays as it was in the one before.
void cycle(std::span<const std::uint8_t> bytes, Others& others, DisplayRegion& region,
           nimbus::Config& config) {
  const auto first = bytes.first(std::min(bytes.size(), sizeof(others)));
  std::memcpy(&others, first.data(), first.size());
  take_over(others, region, config);
  const auto rest = bytes.subspan(first.size());
  std::memcpy(reinterpret_cast<char*>(&region) + kRcBegin, rest.data(), rest.size());
  config.rc_input_enabled = 1;
  region.rc_status = 6;
  nimbus::rc_input_cycle();
  nimbus::stream_speed(region.orientation_lock != 0);
}

bool assigned(const DisplayRegion& region, RcFunction function) {
  return region.rc_function_assigned[static_cast<std::size_t>(function)] != 0 &&
         region.menu_active == 0;
}

bool in_picture(double value) { return 0.0 <= value && value <= 1.0; }

void check(const DisplayRegion& region, nimbus::Config& config) {
  nimbus::fuzz::require_settings(config);
  require(region.osd_enabled <= 1 && region.orientation_lock <= 1);
  require(region.internal_camera_fullscreen <= 1);
  if (!assigned(region, RcFunction::focus_pan) || !assigned(region, RcFunction::focus_tilt)) return;
  require(in_picture(region.focus_point_x) && in_picture(region.focus_point_y));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static DisplayRegion* const region = prepare();
  nimbus::fuzz::clear_memory();
  nimbus::Config& config = *nimbus::config_get();
  Others others{};
  for (std::span<const std::uint8_t> rest(bytes, size); !rest.empty();) {
    const auto now = rest.first(std::min(rest.size(), kCycle));
    cycle(now, others, *region, config);
    check(*region, config);
    rest = rest.subspan(now.size());
  }
  return 0;
}
