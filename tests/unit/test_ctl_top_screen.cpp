// The screen of nimbusctl top, at any size.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/ctl/top_screen.h"

namespace nimbus::ctl {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// Frames of the service, byte by byte.
const std::vector<std::uint8_t> kIso400{0x55, 0x0E, 0x04, 0x66, 0x02, 0x01, 0x03,
                                        0x00, 0x40, 0x02, 0x2A, 0x05, 0xA2, 0xE3};
const std::vector<std::uint8_t> kStop{0x55, 0x14, 0x04, 0x6D, 0x02, 0x04, 0x04, 0x00, 0x40, 0x04,
                                      0x0C, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x90, 0xC0, 0x65};

class TopScreenTest : public testing::Test {
 protected:
  void take(std::vector<std::uint8_t> payload, bool video = false) {
    screen_.take({video, number_++, payload}, now_);
  }
  std::string text(std::size_t width = 200, std::size_t height = 100) {
    std::string all;
    for (const ScreenLine& line : screen_.lines(now_, width, height)) all += line.text + "\n";
    return all;
  }
  void expect(const std::string& part) {
    EXPECT_NE(text().find(part), std::string::npos) << part << " in\n" << text();
  }

  void expect_none(const std::string& part) {
    EXPECT_EQ(text().find(part), std::string::npos) << part << " in\n" << text();
  }
  void overhear(std::uint16_t from, std::uint16_t to, std::vector<std::uint8_t> payload) {
    screen_.overhear({0x0A000007, 0x0A000001, from, to, std::move(payload)}, now_);
  }
  static std::vector<std::uint8_t> viewer_frame(std::string_view text) {
    return encode_frame({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  }

  Clock::time_point now_{seconds(1000)};
  std::uint32_t number_ = 0;
  TopScreen screen_{"board:4242", now_};
};

TEST_F(TopScreenTest, BeforeAnythingHasCome) {
  expect("Nimbus - at board:4242   viewers -");
  expect("camera data  lost          0.0/s      0.0 kbit/s  never");
  EXPECT_EQ(text().find("RC receiver"), std::string::npos);
  EXPECT_EQ(text().find("histogram"), std::string::npos);
}

TEST_F(TopScreenTest, RatesAreOfTheLastSecond) {
  for (int n = 0; n < 50; ++n) take(std::vector<std::uint8_t>(1000), true);
  now_ += seconds(1);
  expect("video        lost         50.0/s    400.0 kbit/s  1.0 s ago");
  now_ += seconds(1);
  expect("  0.0/s      0.0 kbit/s  2.0 s ago");
}

TEST_F(TopScreenTest, LinksAreFoundAndLost) {
  take({5, 0, 2, 0, 0, 0, 0});
  expect("camera data  found");
  take({5, 0, 1, 0, 0, 0, 0});
  expect("camera data  lost");
}

TEST_F(TopScreenTest, WhatTheServiceSaysByItselfIsNoCameraData) {
  std::vector<std::uint8_t> channels(67);
  channels[0] = 15;
  const std::string_view text = R"({"app":"nimbus"})";
  for (int n = 0; n < 3; ++n) {
    take({5, 0, 0, 0, 0, 0, 0});
    take({5, 1, 0, 0, 0, 0, 0});
    take({6, 1, 1, 0, 0, 0, 0});
    take({11, 0, 3, 7, 2, 0, 0});
    take(channels);
    take({text.begin(), text.end()});
    take({99});
    now_ += seconds(1);
  }
  expect("camera data  lost          0.0/s      0.0 kbit/s  never");
  expect("frames       21 received, 0 missing");
  expect_none("silent");
  take({0, 0, 0, 0, 0, 0, 0});
  now_ += seconds(1);
  expect("camera data  lost          1.0/s      0.1 kbit/s  1.0 s ago");
}

TEST_F(TopScreenTest, ChangesAreTold) {
  std::vector<std::uint8_t> settings(31);
  settings[0] = 2;
  take(settings);
  settings[16] = 5;  // ISO 400
  take(settings);
  now_ += seconds(3);
  expect("     3 s ago  iso: auto -> 400");
  for (int n = 0; n < 100; ++n) {
    settings[16] = static_cast<std::uint8_t>(3 + n % 4);
    take(settings);
  }
  const std::string all = text();
  EXPECT_LE(std::count(all.begin(), all.end(), '>'), 8);
}

TEST_F(TopScreenTest, CommandsOfViewersAreOverheard) {
  expect_none("commands");
  overhear(40000, 4242, viewer_frame(R"({"cmd":"iso"})"));
  now_ += seconds(2);
  expect("commands\n     2 s ago  10.0.0.7: {\"cmd\":\"iso\"}\n");
  // Neither what is no command, nor what stands behind its end, nor what a terminal would obey.
  overhear(40000, 4242, viewer_frame({"\0\0", 2}));
  overhear(40000, 4242, viewer_frame(""));
  overhear(40000, 4242, {0x42});
  overhear(40000, 4242, viewer_frame({"{\x1b}\0junk", 8}));
  expect("0 s ago  10.0.0.7: {?}\n     2 s ago  10.0.0.7: {\"cmd\"");
  overhear(40000, 4242, viewer_frame("{~\x7F\x80\x9B\xFF}"));
  expect("0 s ago  10.0.0.7: {~????}\n");
}

TEST_F(TopScreenTest, FramesToTheCameraAreOverheard) {
  overhear(5000, 6000, {1, 2, 3});
  expect_none("commands");
  overhear(5000, 6000, kIso400);
  expect("to the camera: ISO: 400\n");
}

TEST_F(TopScreenTest, WhatStreamsTakesOneLine) {
  for (int n = 0; n < 20; ++n) {
    overhear(5000, 6000, kStop);
    overhear(5000, 6000, kIso400);
    now_ += seconds(1);
  }
  const std::string all = text();
  EXPECT_EQ(all.find("gimbal speed"), all.rfind("gimbal speed"));
}

TEST_F(TopScreenTest, ChannelsAreBars) {
  std::vector<std::uint8_t> payload(67);
  payload[0] = 15;
  payload[1] = 6;
  payload[2] = 3;
  for (const auto& [at, value] : {std::pair{3, 1000}, {5, 1500}, {7, 65535}}) {
    payload[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(value);
    payload[static_cast<std::size_t>(at) + 1] = static_cast<std::uint8_t>(value >> 8);
  }
  take(payload);
  expect("  1 [                        ]  1000");
  expect("  2 [============            ]  1500");
  expect("  3 [========================] 65535");
}

TEST_F(TopScreenTest, TheHistogramHasAPeak) {
  std::vector<std::uint8_t> payload(65);
  payload[0] = 14;
  payload[11] = 200;
  payload[12] = 100;
  take(payload);
  expect("histogram\n          #  ");
  expect("          ## ");
}

TEST_F(TopScreenTest, SilenceAndGapsAreWarnedOf) {
  take({11, 0, 3, 7, 2, 0, 0});
  number_ += 5;
  take({11, 0, 3, 7, 2, 0, 0});
  expect("2 received, 5 missing in 1 gaps");
  now_ += milliseconds(4500);
  expect("silent for 4 s");
  EXPECT_EQ(screen_.lines(now_, 80, 24).front().look, Look::warning);
}

TEST_F(TopScreenTest, FitsAnySize) {
  std::vector<std::uint8_t> histogram(65, 9);
  histogram[0] = 14;
  take(histogram);
  for (const std::size_t width : {0U, 1U, 2U, 40U, 80U, 300U}) {
    for (const std::size_t height : {0U, 1U, 2U, 10U, 100U}) {
      const auto lines = screen_.lines(now_, width, height);
      EXPECT_LE(lines.size(), height);
      for (const ScreenLine& line : lines) EXPECT_LE(line.text.size(), width);
    }
  }
}

}  // namespace
}  // namespace nimbus::ctl
