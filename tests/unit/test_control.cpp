#include "control/control.h"

#include <gtest/gtest.h>
#include <time.h>

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <thread>

#include "base/clock.h"
#include "base/wire.h"
#include "config/config.h"
#include "display/region.h"
#include "net/viewers.h"
#include "tests/unit/camera_end.h"
#include "tests/unit/support.h"
#include "tests/unit/udp_end.h"
#include "tests/unit/wall_clock.h"

namespace nimbus {
namespace {

constexpr std::int64_t kWrap = std::int64_t{1} << 32;

/// Some moment of 2026, and one whose milliseconds wrap around 100 ms later.
constexpr std::array<std::int64_t, 2> kMoments{1'780'000'000'000, 400 * kWrap - 100};

/// The running control threads with a camera. The wall clock stands still but when a test moves it.
class Control : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (camera != nullptr) return;
    test::Console console;
    camera = new test::CameraEnd;
    ASSERT_EQ(open_viewers_link(nullptr), 0);
    // What an earlier run has left.
    display_region()->focus_point_x = 0.125;
    display_region()->focus_point_y = std::numeric_limits<double>::quiet_NaN();
    console.texts();
    init_control();
    said_at_start = console.texts();
    focus_at_start = {display_region()->focus_point_x, display_region()->focus_point_y};
  }

  void SetUp() override { set_clock(kMoments[0]); }

  void TearDown() override {
    config_get()->rc_input_enabled = 0;
    display_region()->tracking_ms = 0;
    display_region()->histogram_ms = 0;
  }

  void set_clock(std::int64_t milliseconds) {
    clock_.set_ms(static_cast<std::uint32_t>(milliseconds));
  }

  /// The focus point is moved at that moment.
  void move_focus(std::int64_t moment, double x, double y) {
    set_clock(moment);
    display_region()->focus_point_x = x;
    display_region()->focus_point_y = y;
    focus_point_moved();
  }

  static void post(const char* command) { display_region()->command_mailbox.post(command); }

  /// Returns when the control thread has seen what is, from the start of a cycle to its end.
  static void cycle() {
    // It takes a text at the start of a cycle.
    for (int i = 0; i < 2; ++i) {
      post("nothing that anybody knows");
      while (display_region()->command_mailbox.full()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }

  /// The id and the payload of the next frame to the camera; empty when none comes.
  static test::Bytes next(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    const test::Bytes frame = camera->receive(patience);
    if (frame.empty()) return {};
    EXPECT_TRUE(test::is_sound(frame)) << testing::PrintToString(frame);
    EXPECT_EQ(frame[9], 0x02) << "no command to the camera";
    return {frame.begin() + 10, frame.end() - 2};
  }

  /// Passes if nothing is sent by what is to be done now.
  static void expect_nothing_sent() {
    cycle();
    EXPECT_EQ(next(std::chrono::milliseconds(0)), test::Bytes{});
  }

  /// What sets the focus to single focus.
  static inline const test::Bytes kSingleFocus{0x24, 0x01};

  static test::Bytes focus_point(float x, float y) {
    test::Bytes bytes(9);
    bytes[0] = 0x30;
    store_le(bytes, 1, std::bit_cast<std::uint32_t>(x));
    store_le(bytes, 5, std::bit_cast<std::uint32_t>(y));
    return bytes;
  }

  static void expect_focus_point_sent(float x, float y) {
    EXPECT_EQ(next(), kSingleFocus);
    EXPECT_EQ(next(), focus_point(x, y));
  }

  static inline test::CameraEnd* camera = nullptr;  // lives as long as the links
  static inline test::Texts said_at_start;
  static inline std::array<double, 2> focus_at_start;

  test::Console console_;
  test::WallClock clock_;
};

TEST_F(Control, SaysThatItStarts) { EXPECT_EQ(said_at_start, test::Texts{"Init control\n"}); }

TEST_F(Control, StartsWithTheFocusPointInTheMiddle) {
  EXPECT_EQ(focus_at_start, (std::array{0.5, 0.5}));
}

// --- The delayed focus point -------------------------------------------------------------------

TEST_F(Control, AFocusPointThatWasNotMovedIsNotSent) {
  display_region()->focus_point_x = 0.25;
  expect_nothing_sent();
  set_clock(kMoments[0] + 1'000'000);
  expect_nothing_sent();
}

TEST_F(Control, AFocusPointIsSentOnceWhenItHasRestedForMoreThan200Ms) {
  for (const std::int64_t moment : kMoments) {
    SCOPED_TRACE(moment);
    move_focus(moment, 0.25, 0.125);
    expect_nothing_sent();
    set_clock(moment + 200);
    expect_nothing_sent();
    set_clock(moment + 201);
    expect_focus_point_sent(0.25F, 0.875F);
    EXPECT_EQ(console_.wait(2), (test::Texts{"Camera set focus type afs\n",
                                             "Camera set focus point 0.250000,0.875000\n"}));
    set_clock(moment + 1000);
    expect_nothing_sent();
  }
}

/// The picture's vertical axis points the other way; the subtraction is a double's. What another
/// process has put outside the picture stays there.
TEST_F(Control, AFocusPointIsFlippedBeforeItIsRounded) {
  constexpr std::array<double, 8> kValues{0.0, 0.1, 1.0 / 3.0, 0.7, 0.9, 1.0, -2.5, 1e9};
  std::int64_t moment = kMoments[0];
  for (const double value : kValues) {
    SCOPED_TRACE(value);
    move_focus(moment, value, value);
    set_clock(moment += 201);
    expect_focus_point_sent(static_cast<float>(value), static_cast<float>(1.0 - value));
  }
}

TEST_F(Control, AMovedFocusPointRestsAnew) {
  std::int64_t moment = kMoments[0];
  for (int move = 0; move < 5; ++move) {
    move_focus(moment += 200, 0.1 * move, 0.5);
    expect_nothing_sent();
  }
  set_clock(moment + 200);
  expect_nothing_sent();
  set_clock(moment + 201);
  expect_focus_point_sent(0.4F, 0.5F);
  expect_nothing_sent();
}

TEST_F(Control, AFocusPointThatIsMovedWhileItIsSentIsSentAgain) {
  const std::int64_t moment = kMoments[0];
  move_focus(moment, 0.25, 0.5);
  set_clock(moment + 201);
  EXPECT_EQ(next(), kSingleFocus);
  move_focus(moment + 211, 0.75, 0.5);  // the camera takes its time for the focus type
  EXPECT_EQ(next(), focus_point(0.25F, 0.5F));
  set_clock(moment + 411);
  expect_nothing_sent();
  set_clock(moment + 412);
  expect_focus_point_sent(0.75F, 0.5F);
  expect_nothing_sent();
}

/// Between the look at its stamp and the end of its rest.
TEST_F(Control, AFocusPointThatIsMovedWhileItIsLookedAtRestsAnew) {
  const std::int64_t moment = kMoments[0];
  move_focus(moment, 0.25, 0.5);
  static std::atomic<bool> is_looked_at;
  is_looked_at = false;
  clock_.set([] {
    // The control thread's reading; a point that is moved is stamped by a second one.
    if (!is_looked_at.exchange(true)) focus_point_moved();
    return test::timespec_of((kMoments[0] + 201) * 1'000'000);
  });
  expect_nothing_sent();
  EXPECT_TRUE(is_looked_at);
  set_clock(moment + 401);
  expect_nothing_sent();
  set_clock(moment + 402);
  expect_focus_point_sent(0.25F, 0.5F);
}

/// The clock is read after the stamp: at the start of this cycle the point was not moved yet.
TEST_F(Control, AFocusPointThatIsMovedDuringALongCommandRestsAllTheSame) {
  const std::int64_t moment = kMoments[0];
  set_clock(moment);
  post(R"({"cmd":"exposure","param":"center"})");
  EXPECT_EQ(next().size(), 2U) << "the exposure lock, a tenth of a second before the rest";
  move_focus(moment + 50, 0.25, 0.5);
  EXPECT_FALSE(next().empty());
  expect_nothing_sent();
  set_clock(moment + 251);
  expect_focus_point_sent(0.25F, 0.5F);
}

TEST_F(Control, AFocusPointIsSentSoonAfterItHasRested) {
  using std::chrono::milliseconds;
  using std::chrono::steady_clock;
  clock_.set(nullptr);
  const auto moved = steady_clock::now();
  focus_point_moved();
  EXPECT_EQ(next(), kSingleFocus);
  const auto delay = steady_clock::now() - moved;
  EXPECT_GE(delay, milliseconds(200));
  EXPECT_LT(delay, milliseconds(1000));
  EXPECT_FALSE(next().empty());
}

// --- The RC report -----------------------------------------------------------------------------

/// Control with a viewer.
class RcReport : public Control {
 protected:
  void SetUp() override {
    Control::SetUp();
    ASSERT_EQ(register_viewer(viewer_.endpoint(), false), 1);
  }

  void TearDown() override {
    Control::TearDown();
    cycle();
    constexpr std::array<std::uint8_t, 13> kLeave{0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    handle_viewer_datagram({kLeave, viewer_.endpoint()});
  }

  /// What the viewer gets next, behind the header of its frame; empty when nothing comes.
  test::Bytes report(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    constexpr std::size_t kHeader = 12;
    const std::string frame = viewer_.receive(patience);
    if (frame.empty()) return {};
    EXPECT_GE(frame.size(), kHeader);
    return {frame.begin() + kHeader, frame.end()};
  }

  /// A moment long after all before it.
  static std::int64_t later() {
    static std::int64_t moment = kMoments[0];
    return moment += 1'000'000;
  }

  void expect_no_report() {
    cycle();
    EXPECT_EQ(report(std::chrono::milliseconds(0)), test::Bytes{});
  }

 private:
  test::UdpEnd viewer_;
};

TEST_F(RcReport, IsSentForTheRcInputOnly) {
  set_clock(later());
  expect_no_report();
  config_get()->rc_input_enabled = 255;
  EXPECT_FALSE(report().empty());
  config_get()->rc_input_enabled = 0;
  set_clock(later());
  expect_no_report();
}

TEST_F(RcReport, HasTheReceiverStateAndAllChannels) {
  display_region()->rc_status = 0xA5;
  test::Bytes expected{15, 0xA5, 32};
  for (std::size_t channel = 0; channel < 32; ++channel) {
    const auto value = static_cast<std::uint16_t>(0xFFFF - 0x7A3 * channel);
    display_region()->rc_channel_values[channel] = value;
    expected.push_back(static_cast<std::uint8_t>(value & 0xFF));
    expected.push_back(static_cast<std::uint8_t>(value >> 8));
  }
  set_clock(later());
  config_get()->rc_input_enabled = 1;
  EXPECT_EQ(report(), expected);
}

TEST_F(RcReport, IsSentAgainAfterMoreThan500Ms) {
  for (const std::int64_t moment : {later(), kMoments[1]}) {
    SCOPED_TRACE(moment);
    set_clock(moment);
    config_get()->rc_input_enabled = 1;
    ASSERT_FALSE(report().empty());
    expect_no_report();
    set_clock(moment + 500);
    expect_no_report();
    set_clock(moment + 501);
    EXPECT_FALSE(report().empty());
    expect_no_report();
  }
}

// --- Telemetry that stops coming ---------------------------------------------------------------

struct Telemetry {
  const char* name;
  Shared<std::uint32_t> DisplayRegion::*stamp;
  const char* lost;

  friend void PrintTo(const Telemetry& telemetry, std::ostream* out) { *out << telemetry.name; }
};

class TelemetryTimeout : public Control, public testing::WithParamInterface<Telemetry> {
 protected:
  /// Sets the stamp and the clock, and returns what a check says then.
  test::Texts check(std::int64_t stamped, std::int64_t now) {
    set_clock(now);
    stamp() = static_cast<std::uint32_t>(stamped);
    check_telemetry_timeouts();
    return console_.texts();
  }

  static Shared<std::uint32_t>& stamp() { return display_region()->*GetParam().stamp; }
};

TEST_P(TelemetryTimeout, ComesAfterMoreThan3000Ms) {
  for (const std::int64_t moment : kMoments) {
    SCOPED_TRACE(moment);
    for (const std::int64_t age : {0, 1, 101, 2999, 3000}) {
      SCOPED_TRACE(age);
      EXPECT_EQ(check(moment, moment + age), test::Texts{});
      EXPECT_EQ(stamp(), static_cast<std::uint32_t>(moment));
    }
    // Also from the future: an age is an unsigned difference.
    for (const std::int64_t age :
         {std::int64_t{3001}, std::int64_t{60'000}, kWrap / 2, kWrap - 1}) {
      SCOPED_TRACE(age);
      EXPECT_EQ(check(moment, moment + age), test::Texts{GetParam().lost});
      EXPECT_EQ(stamp(), 0U);
    }
  }
}

TEST_P(TelemetryTimeout, IsSaidOnce) {
  EXPECT_EQ(check(kMoments[0], kMoments[0] + 3001), test::Texts{GetParam().lost});
  for (int i = 0; i < 3; ++i) {
    check_telemetry_timeouts();
    EXPECT_EQ(console_.texts(), test::Texts{});
  }
}

TEST_P(TelemetryTimeout, IsOfNoConcernWithoutTelemetry) {
  for (const std::int64_t moment : kMoments) {
    EXPECT_EQ(check(0, moment + 50), test::Texts{});
    EXPECT_EQ(check(0, moment + 5000), test::Texts{});
  }
}

/// A report that arrives at the very moment of the check is neither forgotten nor called lost.
TEST_P(TelemetryTimeout, LeavesAFreshStampAlone) {
  constexpr std::uint32_t kFresh = 77;
  stamp() = 1000;
  clock_.set([] {
    stamp() = kFresh;
    return timespec{.tv_sec = 4, .tv_nsec = 1'000'000};
  });
  check_telemetry_timeouts();
  EXPECT_EQ(console_.texts(), test::Texts{});
  EXPECT_EQ(stamp(), kFresh);
}

INSTANTIATE_TEST_SUITE_P(
    Each, TelemetryTimeout,
    testing::Values(Telemetry{"Tracking", &DisplayRegion::tracking_ms, "Tracking lost\n"},
                    Telemetry{"Histogram", &DisplayRegion::histogram_ms, "Histogram lost\n"}),
    testing::PrintToStringParamName());

TEST_F(Control, LostTrackingIsSaidBeforeALostHistogram) {
  display_region()->histogram_ms = static_cast<std::uint32_t>(kMoments[0] - 9000);
  display_region()->tracking_ms = static_cast<std::uint32_t>(kMoments[0] - 4000);
  check_telemetry_timeouts();
  EXPECT_EQ(console_.texts(), (test::Texts{"Tracking lost\n", "Histogram lost\n"}));
}

}  // namespace
}  // namespace nimbus
