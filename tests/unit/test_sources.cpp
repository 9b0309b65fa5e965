#include "net/sources.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <thread>

#include "config/config.h"
#include "display/region.h"
#include "net/viewers.h"
#include "tests/unit/support.h"
#include "tests/unit/udp_end.h"
#include "tests/unit/wall_clock.h"

namespace nimbus {
namespace {

using test::Texts;

/// The size of the last datagram of camera data.
std::atomic<std::size_t> handed_on = 0;

void hand_on(std::span<const std::uint8_t> bytes) { handed_on = bytes.size(); }

/// Both sources, silent at the start of every test.
class Sources : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The links stay open as long as the process, also when the tests are repeated.
    static const bool started = start();
    ASSERT_TRUE(started);
  }

  Sources() {
    clock_.set_ms(moment_);
    fall_silent();
    console_.texts();
    handed_on = 0;
    config_get()->disable_video_stream = 0;
    display().product_name.assign("product");
    display().version_text.assign("version");
    display().timer_state = 3;
    display().timer_start_ms = 4;
    display().timer_elapsed_ms = 5;
  }

  static bool start() {
    if (map_display_region() == nullptr) return false;
    display().data_connected = 1;
    display().video_connected = 1;
    test::Console console;
    const bool opened = init_sources(hand_on) == 0 && open_viewers_link(nullptr) == 0;
    said_at_start = console.texts();
    connected_at_start = display().data_connected + display().video_connected;
    return opened;
  }

  static DisplayRegion& display() { return *display_region(); }

  void pass(std::uint32_t milliseconds) { clock_.set_ms(moment_ += milliseconds); }

  /// A link without a datagram for longer than its time-out.
  void fall_silent() {
    pass(kLinkTimeoutMs + 1);
    check_sources();
  }

  /// Returns when video that came has its time noted, which is behind the text that it was found.
  void wait_for_video() {
    while (display().video_connected == 0) std::this_thread::yield();
    display().video_connected = 0;
    bridge_.send(kVideoPort, "x");
    while (display().video_connected == 0) std::this_thread::yield();
  }

  static void expect_timer_reset() {
    EXPECT_EQ(display().timer_state, 0);
    EXPECT_EQ(display().timer_start_ms, 0U);
    EXPECT_EQ(display().timer_elapsed_ms, 0U);
  }

  static inline Texts said_at_start;
  static inline int connected_at_start = -1;
  static inline std::uint32_t moment_ = 1'000'000;

  test::Console console_;
  test::WallClock clock_;
  test::UdpEnd bridge_;
};

TEST_F(Sources, BothAreLostUntilTheyAreFound) {
  const Texts expected{"Data lost\n", "Video lost\n",          "Init data source... ",
                       "done\n",      "Init video source... ", "done\n"};
  ASSERT_GE(said_at_start.size(), expected.size());
  EXPECT_EQ(Texts(said_at_start.begin(), said_at_start.begin() + 6), expected);
  EXPECT_EQ(connected_at_start, 0);
}

TEST_F(Sources, CameraDataIsFoundAndHandedOn) {
  bridge_.send(kDataPort, "four");
  EXPECT_EQ(console_.wait(1), Texts{"Data found\n"});
  bridge_.send(kDataPort, "seventh");
  while (handed_on != 7) std::this_thread::yield();
  EXPECT_EQ(display().data_connected, 1);
  EXPECT_EQ(config_get()->data_connected, 1);
  EXPECT_EQ(test::bytes_of(display().product_name)[0], '\0');
  EXPECT_EQ(test::bytes_of(display().version_text)[0], '\0');
  EXPECT_EQ(test::bytes_of(display().telemetry_status_text)[0], '\0');
  expect_timer_reset();
  EXPECT_EQ(console_.texts(), Texts{}) << "only the first one is news";
}

TEST_F(Sources, CameraDataThatStopsIsLostOnce) {
  bridge_.send(kDataPort, "x");
  EXPECT_EQ(console_.wait(1), Texts{"Data found\n"});
  while (handed_on != 1) std::this_thread::yield();
  pass(kLinkTimeoutMs);
  check_sources();
  EXPECT_EQ(console_.texts(), Texts{}) << "it is not silent yet";
  display().timer_state = 3;
  pass(1);
  check_sources();
  check_sources();
  EXPECT_EQ(console_.texts(), Texts{"Data lost\n"});
  EXPECT_EQ(display().data_connected, 0);
  EXPECT_EQ(config_get()->data_connected, 0);
  EXPECT_EQ(test::bytes_of(display().telemetry_status_text).substr(0, 23),
            std::string("telemetry disconnected") + '\0');
  expect_timer_reset();
}

TEST_F(Sources, VideoLeavesTheSplashAndTheTimerAlone) {
  bridge_.send(kVideoPort, "x");
  EXPECT_EQ(console_.wait(1), Texts{"Video found\n"});
  wait_for_video();
  EXPECT_EQ(test::bytes_of(display().product_name).substr(0, 8), std::string("product") + '\0');
  EXPECT_EQ(display().timer_state, 3);
  fall_silent();
  EXPECT_EQ(console_.texts(), Texts{"Video lost\n"});
  EXPECT_EQ(display().video_connected, 0);
  EXPECT_EQ(test::bytes_of(display().video_status_text).substr(0, 19),
            std::string("video disconnected") + '\0');
}

TEST_F(Sources, CameraDataIsLostBeforeVideo) {
  bridge_.send(kVideoPort, "x");
  bridge_.send(kDataPort, "x");
  console_.wait(2);
  while (handed_on != 1) std::this_thread::yield();
  wait_for_video();
  fall_silent();
  EXPECT_EQ(console_.texts(), (Texts{"Data lost\n", "Video lost\n"}));
}

TEST_F(Sources, VideoIsRelayedUnlessItIsDisabled) {
  const test::UdpEnd viewer;
  ASSERT_EQ(register_viewer(viewer.endpoint(), false), 1);
  bridge_.send(kVideoPort, "one");
  EXPECT_EQ(viewer.receive().substr(12), "one");
  config_get()->disable_video_stream = 1;
  display().video_connected = 0;
  bridge_.send(kVideoPort, "two");
  while (display().video_connected == 0) std::this_thread::yield();
  EXPECT_EQ(viewer.receive(std::chrono::milliseconds(50)), "");
  config_get()->disable_video_stream = 0;
  bridge_.send(kVideoPort, "three");
  EXPECT_EQ(viewer.receive().substr(12), "three");
}

}  // namespace
}  // namespace nimbus
