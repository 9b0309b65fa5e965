#include "app/status_loop.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

#include "base/clock.h"
#include "control/control.h"
#include "net/sources.h"
#include "net/viewers.h"
#include "tests/unit/board_tools.h"
#include "tests/unit/support.h"
#include "tests/unit/udp_end.h"

namespace nimbus {
namespace {

using namespace std::string_literals;
using test::Texts;

/// A viewer that sees what a round of the status loop sends.
class StatusLoop : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The links stay open as long as the process, also when the tests are repeated.
    static const bool started = start();
    ASSERT_TRUE(started);
  }

  StatusLoop() { register_viewer(viewer_.endpoint(), false); }
  ~StatusLoop() override {
    std::array<std::uint8_t, kFrameHeaderSize + 1> leave{kFrameMagic};
    leave.back() = static_cast<std::uint8_t>(FromViewer::leave);
    handle_viewer_datagram({leave, viewer_.endpoint()});
  }

  static bool start() {
    test::Console console;
    const bool opened = map_display_region() != nullptr && open_viewers_link(nullptr) == 0 &&
                        init_sources(nullptr) == 0;
    init_control();
    return opened;
  }

  static DisplayRegion& display() { return *display_region(); }

  /// The messages of one round, in their order.
  Texts round() {
    status_round(display(), *config_get());
    Texts messages;
    for (std::string frame; !(frame = viewer_.receive(std::chrono::milliseconds(0))).empty();) {
      messages.push_back(frame.substr(12));
    }
    return messages;
  }

  test::Console console_;
  test::BoardTools tools_;
  test::UdpEnd viewer_;
};

TEST_F(StatusLoop, ARoundTellsHowThingsStandInItsOrder) {
  tools_.answer("pidof", "exit 1");
  display().rc_status = 3;
  EXPECT_EQ(round(),
            (Texts{"\5\0\0\0\0\0\0"s, "\5\1\0\0\0\0\0"s, "\6\1\1\0\0\3\0"s, "\x0B\0\3\7\2\0\0"s}));
  display().rc_status = 0;
  EXPECT_EQ(tools_.calls(), Texts{"pidof hostapd"});
}

TEST_F(StatusLoop, FlagsAndSourcesAreThoseOfRegionAndRecord) {
  display().data_connected = 1;
  display().video_connected = 7;
  config_get()->data_connected = 1;
  config_get()->hdmi_enabled = 1;
  tools_.answer("pidof", "exit 0");
  const Texts messages = round();
  ASSERT_EQ(messages.size(), 4U);
  EXPECT_EQ(messages[0], "\5\0\2\0\0\0\0"s);
  EXPECT_EQ(messages[1], "\5\1\2\0\0\0\0"s);
  EXPECT_EQ(config_get()->ap_running, 1);
  // What was probed in this round is told in it: always, access point, HDMI, camera data.
  EXPECT_EQ(messages[2].substr(0, 3), "\6\x17\1"s);
  display().data_connected = 0;
  display().video_connected = 0;
  config_get()->data_connected = 0;
  config_get()->hdmi_enabled = 0;
}

TEST_F(StatusLoop, ARoundNoticesWhatHasFallenSilent) {
  display().tracking_ms = now_ms() - 4000;
  display().viewer_count = 9;
  console_.texts();
  round();
  EXPECT_EQ(display().viewer_count, 1);
  EXPECT_EQ(display().tracking_ms, 0U);
  EXPECT_EQ(console_.texts(), Texts{"Tracking lost\n"});
}

}  // namespace
}  // namespace nimbus
