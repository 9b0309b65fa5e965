#include "camera/gimbal.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <span>
#include <string>

#include "base/wire.h"
#include "tests/unit/camera_end.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using Limits = std::numeric_limits<double>;
using IntLimits = std::numeric_limits<std::int32_t>;

/// A speed frame, in the order of the wire.
struct Wire {
  int pan;
  int roll;
  int tilt;
  bool operator==(const Wire&) const = default;
  friend void PrintTo(const Wire& wire, std::ostream* out) {
    *out << "pan " << wire.pan << " roll " << wire.roll << " tilt " << wire.tilt;
  }
};

struct SpeedOnWire {
  double speed;
  int wire;
};

class GimbalSpeed : public testing::Test {
 protected:
  /// What the next frame says, which must be a sound speed frame.
  Wire sent() {
    const test::Bytes frame = camera_.receive();
    EXPECT_EQ(frame.size(), 20U);
    EXPECT_TRUE(test::is_sound(frame));
    if (frame.size() != 20) return {};
    EXPECT_EQ(test::Bytes(frame.begin() + 4, frame.begin() + 6), (test::Bytes{0x02, 0x04}));
    EXPECT_EQ(test::Bytes(frame.begin() + 8, frame.begin() + 11), (test::Bytes{0x40, 0x04, 0x0C}));
    EXPECT_EQ(frame[17], 0x90);
    return {load_le<std::int16_t>(frame, 11), load_le<std::int16_t>(frame, 13),
            load_le<std::int16_t>(frame, 15)};
  }

  void expect_on_each_axis(std::span<const SpeedOnWire> rows) {
    for (const auto& [speed, wire] : rows) {
      SCOPED_TRACE(speed);
      EXPECT_EQ(gimbal_speed(speed, 0.0, 0.0), 20);
      EXPECT_EQ(sent(), (Wire{.pan = wire, .roll = 0, .tilt = 0}));
      EXPECT_EQ(gimbal_speed(0.0, speed, 0.0), 20);
      EXPECT_EQ(sent(), (Wire{.pan = 0, .roll = 0, .tilt = wire}));
      EXPECT_EQ(gimbal_speed(0.0, 0.0, speed), 20);
      EXPECT_EQ(sent(), (Wire{.pan = 0, .roll = wire, .tilt = 0}));
    }
  }

  test::CameraEnd camera_;
};

constexpr auto kThousandths = std::to_array<SpeedOnWire>({
    {0.0, 0},
    {-0.0, 0},
    {0.0005, 0},
    {-0.0005, 0},
    {0.000999999, 0},
    {0.001, 1},
    {-0.001, -1},
    {0.0019, 1},
    {-0.0019, -1},
    {1.0, 1000},
    {-1.0, -1000},
    {1.23456, 1234},
    {-1.23456, -1234},
    {32.767, 32767},
    {-32.768, -32768},
});

// The low 16 bits are kept.
constexpr auto kPast16Bits = std::to_array<SpeedOnWire>({
    {32.768, -32768},
    {-32.769, 32767},
    {65.536, 0},
    {65.537, 1},
    {100.0, -31072},
});

// The number is at its limit of 32 bits: 7FFFFFFF or 80000000.
constexpr auto kPast32Bits = std::to_array<SpeedOnWire>({
    {2147483.647, -1},
    {2147483.648, -1},
    {-2147483.648, 0},
    {-2147483.649, 0},
    {1e300, -1},
    {-1e300, 0},
    {Limits::max(), -1},
    {Limits::lowest(), 0},
    {Limits::infinity(), -1},
    {-Limits::infinity(), 0},
    {Limits::quiet_NaN(), 0},
    {-Limits::quiet_NaN(), 0},
    {Limits::denorm_min(), 0},
});

TEST_F(GimbalSpeed, ThousandthsTruncated) { expect_on_each_axis(kThousandths); }
TEST_F(GimbalSpeed, Past16Bits) { expect_on_each_axis(kPast16Bits); }
TEST_F(GimbalSpeed, Past32Bits) { expect_on_each_axis(kPast32Bits); }

TEST_F(GimbalSpeed, RollStandsBeforeTilt) {
  gimbal_speed(0.001, 0.002, 0.003);
  EXPECT_EQ(sent(), (Wire{.pan = 1, .roll = 3, .tilt = 2}));
  gimbal_speed_raw(1, 2, 3);
  EXPECT_EQ(sent(), (Wire{.pan = 1, .roll = 3, .tilt = 2}));
}

TEST_F(GimbalSpeed, RawIsCutToItsField) {
  struct Row {
    std::int32_t raw;
    int wire;
  };
  const Row rows[] = {{0, 0},
                      {1, 1},
                      {-1, -1},
                      {32'767, 32'767},
                      {32'768, -32'768},
                      {-32'768, -32'768},
                      {-32'769, 32'767},
                      {65'536, 0},
                      {IntLimits::max(), -1},
                      {IntLimits::min(), 0}};
  for (const auto& [raw, wire] : rows) {
    SCOPED_TRACE(raw);
    EXPECT_EQ(gimbal_speed_raw(raw, raw, raw), 20);
    EXPECT_EQ(sent(), (Wire{wire, wire, wire}));
  }
}

TEST_F(GimbalSpeed, WritesNoLine) {
  test::Console console;
  gimbal_speed(1.0, 1.0, 1.0);
  gimbal_speed_raw(1, 1, 1);
  EXPECT_EQ(console.texts(), test::Texts{});
}

/// The result is that of the last frame, -1 where there is none.
TEST(GimbalResults, AreTheLastFramesLength) {
  const test::CameraEnd camera;
  test::Console console;
  EXPECT_EQ(gimbal_set_centre_position(), 15);
  EXPECT_EQ(gimbal_set_next_position(), 15);
  EXPECT_EQ(gimbal_set_mode("fpv"), 17);
  EXPECT_EQ(gimbal_set_mode("FPV"), -1);
  EXPECT_EQ(gimbal_set_follow_mode("?"), 17);
  EXPECT_EQ(gimbal_calibrate(), 13);
  EXPECT_EQ(tracking_stop(), 34);
  EXPECT_EQ(tracking_start({0.5F, 0.5F, 0.25F, 0.25F}), 34);
  gimbal_set_orientation(2);
  gimbal_set_orientation(0);
  EXPECT_EQ(console.texts(),
            (test::Texts{"Gimbal set center position\n", "Gimbal set next position\n",
                         "Gimbal set mode fpv\n", "Gimbal set mode FPV\n",
                         "Gimbal set follow mode ?\n", "Gimbal calibrate\n", "Stop tracking\n",
                         "Stop tracking\n", "Start tracking 0.5 0.5 0.2 0.2\n",
                         "Set orientation lock\n", "Set orientation unlock\n"}));
}

}  // namespace
}  // namespace nimbus
