#include "control/rc_input.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "config/config.h"
#include "control/rc_map.h"
#include "control/speed_mixer.h"
#include "display/region.h"
#include "tests/unit/board_tools.h"
#include "tests/unit/camera_end.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using test::Bytes;
using test::Texts;
using Frames = std::vector<Bytes>;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr std::uint8_t kPhoto = 0;
constexpr std::uint8_t kVideo = 1;

const Bytes kRecord{0x02, 0x02, 0x01};
const Bytes kStop{0x02, 0x02, 0x00};
const Bytes kShot{0x02, 0x01, 0x01};
const Bytes kZeroSpeed{0x04, 0x0C, 0, 0, 0, 0, 0, 0, 0x90};

Bytes ev_step(std::uint8_t step) { return {0x02, 0x2E, static_cast<std::uint8_t>(7 + step)}; }

/// A pilot in charge of a camera, cycle by cycle. What is remembered from cycle to cycle lives as
/// long as the process: every test brings its switches back to where they were.
class RcInput : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (camera == nullptr) camera = new test::CameraEnd;
  }

  RcInput() {
    test::set_bytes(*config_get(), std::string(sizeof(Config), '\0'));
    config_get()->rc_input_enabled = 1;
    config_get()->rc_input_speed_pan = 100;
    config_get()->rc_input_speed_tilt = -50;
    display().rc_status = 6;
    display().menu_active = 0;
    display().camera_mode = kVideo;
    for (auto& each : display().rc_function_assigned) each = 0;
    for (auto& each : display().rc_function_centred) each = 0.0;
    for (auto& each : display().rc_function_position) each = 0.0;
  }

  ~RcInput() override {
    display().rc_status = 0;
    rc_input_cycle();
    sent();
  }

  static DisplayRegion& display() { return *display_region(); }

  static void assign(RcFunction function) {
    display().rc_function_assigned[static_cast<std::size_t>(function)] = 1;
  }
  static void move(RcFunction function, double value) {
    display().rc_function_centred[static_cast<std::size_t>(function)] = value;
  }
  static void place(RcFunction function, double value) {
    display().rc_function_position[static_cast<std::size_t>(function)] = value;
  }

  /// Command set, id and payload of what has been sent since the last time.
  static Frames sent() {
    Frames found;
    for (;;) {
      const Bytes frame = camera->receive(std::chrono::milliseconds(0));
      if (frame.empty()) return found;
      EXPECT_TRUE(test::is_sound(frame)) << testing::PrintToString(frame);
      found.emplace_back(frame.begin() + 9, frame.end() - 2);
    }
  }

  /// What one cycle sends.
  static Frames cycle() {
    rc_input_cycle();
    return sent();
  }

  /// What the cycle behind that movement sends.
  static Frames cycle_with(RcFunction function, double value) {
    move(function, value);
    return cycle();
  }

  static inline test::CameraEnd* camera = nullptr;  // lives as long as the links

  test::Console console_;
};

// --- Who is in charge --------------------------------------------------------------------------

TEST_F(RcInput, ThePilotIsInChargeWhileTheReceiverIsLiveAndTheMenuIsClosed) {
  assign(RcFunction::record);
  move(RcFunction::record, 1.0);
  config_get()->rc_input_enabled = 0;
  EXPECT_EQ(cycle(), Frames{});
  config_get()->rc_input_enabled = 1;
  for (const int state : {0, 5, 7, 255}) {
    display().rc_status = static_cast<std::uint8_t>(state);
    EXPECT_EQ(cycle(), Frames{}) << state;
  }
  display().rc_status = 6;
  display().menu_active = 2;
  EXPECT_EQ(cycle(), Frames{});
  display().menu_active = 0;
  EXPECT_EQ(cycle(), Frames{kRecord});
  EXPECT_EQ(cycle_with(RcFunction::record, 0.0), Frames{kStop});
}

TEST_F(RcInput, WhoLeavesStopsTheGimbalOnce) {
  assign(RcFunction::pan);
  assign(RcFunction::tilt);
  EXPECT_EQ(cycle_with(RcFunction::pan, 0.5), Frames{}) << "the stream sends speeds";
  display().menu_active = 1;
  EXPECT_EQ(cycle(), Frames{kZeroSpeed});
  EXPECT_EQ(cycle(), Frames{});
}

// --- Sticks ------------------------------------------------------------------------------------

TEST_F(RcInput, SticksSteerInProportion) {
  assign(RcFunction::pan);
  assign(RcFunction::tilt);
  move(RcFunction::pan, 0.5);
  EXPECT_EQ(cycle_with(RcFunction::tilt, -1.0), Frames{});
  stream_speed(false);
  // Pan 0.5 of 100 %, roll 0, tilt -1.0 of -50 %.
  EXPECT_EQ(sent(), (Frames{{0x04, 0x0C, 0xF4, 0x01, 0, 0, 0xF4, 0x01, 0x90}}));
}

TEST_F(RcInput, OneStickAloneOrAnAbsoluteOneDoesNotSteer) {
  assign(RcFunction::pan);
  EXPECT_EQ(cycle_with(RcFunction::pan, 1.0), Frames{});
  stream_speed(false);
  EXPECT_EQ(sent(), Frames{});
  assign(RcFunction::tilt);
  config_get()->rc_input_abs = 1;
  EXPECT_EQ(cycle(), Frames{});
  stream_speed(false);
  EXPECT_EQ(sent(), Frames{});
}

TEST_F(RcInput, TheFocusPointStaysInThePicture) {
  display().focus_point_x = 0.5;
  display().focus_point_y = 0.5;
  assign(RcFunction::focus_pan);
  assign(RcFunction::focus_tilt);
  move(RcFunction::focus_pan, 1.0);
  cycle_with(RcFunction::focus_tilt, 1.0);
  // 100 % and -50 % of a twenty-hundredth of the picture.
  EXPECT_DOUBLE_EQ(display().focus_point_x, 0.55);
  EXPECT_DOUBLE_EQ(display().focus_point_y, 0.475);
  display().focus_point_x = 0.99;
  cycle_with(RcFunction::focus_tilt, kNan);
  EXPECT_EQ(display().focus_point_x, 1.0);
  EXPECT_EQ(display().focus_point_y, 0.0);
}

TEST_F(RcInput, TheExposureCompensationIsSentWhenItsStepChanges) {
  assign(RcFunction::ev);
  place(RcFunction::ev, 0.5);
  EXPECT_EQ(cycle(), Frames{ev_step(9)});
  EXPECT_EQ(cycle(), Frames{});
  place(RcFunction::ev, 7.0);
  EXPECT_EQ(cycle(), Frames{ev_step(18)});
  place(RcFunction::ev, kNan);
  EXPECT_EQ(cycle(), Frames{ev_step(0)});
}

// --- Switches ----------------------------------------------------------------------------------

TEST_F(RcInput, TheRecordSwitchActsOncePerMovement) {
  assign(RcFunction::record);
  EXPECT_EQ(cycle_with(RcFunction::record, 0.5), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::record, 0.51), Frames{kRecord});
  EXPECT_EQ(cycle_with(RcFunction::record, 1.0), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::record, kNan), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::record, 0.5), Frames{kStop});
  EXPECT_EQ(cycle(), Frames{});
  display().camera_mode = kPhoto;
  EXPECT_EQ(cycle_with(RcFunction::record, 1.0), Frames{kShot});
  EXPECT_EQ(cycle_with(RcFunction::record, 0.0), Frames{});
}

TEST_F(RcInput, TheOtherRecordSwitchChangesTheModeFirst) {
  assign(RcFunction::record_shot);
  display().camera_mode = kPhoto;
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(cycle_with(RcFunction::record_shot, 1.0), (Frames{{0x02, 0x10, 0x01}, kRecord}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(200));
  display().camera_mode = kVideo;
  EXPECT_EQ(cycle_with(RcFunction::record_shot, 0.0), Frames{kStop});
  EXPECT_EQ(cycle_with(RcFunction::record_shot, -1.0), (Frames{{0x02, 0x10, 0x00}, kShot}));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(700));
  display().camera_mode = kPhoto;
  EXPECT_EQ(cycle_with(RcFunction::record_shot, 0.0), Frames{});
}

TEST_F(RcInput, ALeverStepsOnceEachTimeThatItLeavesItsCentre) {
  assign(RcFunction::iso);
  const auto iso = [](std::uint8_t code) { return Frames{{0x02, 0x2A, code}}; };
  EXPECT_EQ(cycle(), iso(0)) << "the first step goes of itself";
  EXPECT_EQ(cycle_with(RcFunction::iso, 0.3), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::iso, 0.31), iso(3));
  EXPECT_EQ(cycle_with(RcFunction::iso, 1.0), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::iso, 0.1), Frames{}) << "not within its centre";
  EXPECT_EQ(cycle_with(RcFunction::iso, 1.0), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::iso, 0.09), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::iso, -1.0), iso(0));
  EXPECT_EQ(cycle_with(RcFunction::iso, 0.0), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::iso, -1.0), Frames{}) << "there is no lower step";
  EXPECT_EQ(cycle_with(RcFunction::iso, 0.0), Frames{});
}

TEST_F(RcInput, WhileItFilmsTheShutterIsNoSlowerThanAFrame) {
  assign(RcFunction::shutter);
  const Bytes shutter_25{0x02, 0x28, 0x01, 25, 0x80, 0};
  EXPECT_EQ(cycle(), Frames{shutter_25});
}

TEST_F(RcInput, TheCentreLeverActsOncePerMovement) {
  assign(RcFunction::centre);
  const Frames next_position{{0x04, 0x4C, 0xFE, 0x09}};
  EXPECT_EQ(cycle_with(RcFunction::centre, 0.3), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::centre, 0.31), next_position);
  EXPECT_EQ(cycle_with(RcFunction::centre, 1.0), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::centre, 0.3), Frames{});
  EXPECT_EQ(cycle_with(RcFunction::centre, 1.0), next_position);
  EXPECT_EQ(cycle_with(RcFunction::centre, 0.0), Frames{});
}

TEST_F(RcInput, TheOsdIsHiddenWhileItsSwitchIsUp) {
  assign(RcFunction::osd);
  EXPECT_EQ(cycle_with(RcFunction::osd, 0.3), Frames{});
  EXPECT_EQ(display().osd_enabled, 0);
  cycle_with(RcFunction::osd, 0.29);
  EXPECT_EQ(display().osd_enabled, 1);
  cycle_with(RcFunction::osd, kNan);
  EXPECT_EQ(display().osd_enabled, 0);
}

TEST_F(RcInput, TheOrientationLockFollowsItsSwitch) {
  assign(RcFunction::orient_lock);
  EXPECT_EQ(cycle_with(RcFunction::orient_lock, 0.3), Frames{});
  cycle_with(RcFunction::orient_lock, 0.31);
  EXPECT_EQ(display().orientation_lock, 1);
  cycle_with(RcFunction::orient_lock, kNan);
  EXPECT_EQ(display().orientation_lock, 1) << "NaN leaves it where it is";
  cycle_with(RcFunction::orient_lock, 0.0);
  EXPECT_EQ(display().orientation_lock, 0);
  EXPECT_EQ(console_.texts(), (Texts{"Set orientation lock\n", "Set orientation unlock\n"}));
}

TEST_F(RcInput, TheInternalCameraIsSavedAndThenEnded) {
  const test::BoardTools tools;
  assign(RcFunction::intcamera);
  cycle_with(RcFunction::intcamera, 1.0);
  EXPECT_EQ(config_get()->internal_camera_fullscreen, 1);
  EXPECT_EQ(display().internal_camera_fullscreen, 1);
  const auto calls = tools.calls();
  ASSERT_GE(calls.size(), 2U);
  EXPECT_EQ(calls.front(), "mount -o rw,remount /boot");
  EXPECT_EQ(calls.back(), "killall -q raspivid");
  cycle_with(RcFunction::intcamera, 0.0);
  EXPECT_EQ(config_get()->internal_camera_fullscreen, 0);
  EXPECT_EQ(tools.calls().back(), "killall -q raspivid");
}

}  // namespace
}  // namespace nimbus
