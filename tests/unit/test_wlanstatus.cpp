// The tool of the installation and the reader of its output, together. The test runs in install/,
// as the service runs where that is installed.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "config/wireless.h"
#include "tests/unit/board_tools.h"

namespace nimbus {
namespace {

/// That of a connection to a network of that name, as wpa_cli escapes it.
WlanStatus status_of(std::string_view escaped) {
  const test::BoardTools tools;
  tools.print("wpa_cli",
              "freq=5180\nssid=" + std::string(escaped) + "\nwpa_state=COMPLETED\nRSSI=-60\n");
  WlanStatus status;
  EXPECT_EQ(wifi_link_status("lo", status), 0);
  return status;
}

TEST(WlanStatus, ConnectionIsRead) {
  const WlanStatus status = status_of("Studio");
  EXPECT_EQ(status.freq, 5180);
  EXPECT_EQ(status.quality, 50);
  EXPECT_EQ(status.quality_max, 70);
  EXPECT_EQ(status.signal, static_cast<std::uint8_t>(-60));
  EXPECT_STREQ(status.ssid, "Studio");
}

TEST(WlanStatus, NamesComeThroughWhole) {
  EXPECT_STREQ(status_of(R"(a\"b\\c d\t)").ssid, "a\"b\\c d\t");
  EXPECT_STREQ(status_of(R"(caf\xc3\xa9)").ssid, "caf\xc3\xa9");
  const WlanStatus longest = status_of(std::string(32, 'x'));
  EXPECT_EQ(longest.ssid, std::string(32, 'x'));
  EXPECT_EQ(longest.freq, 5180);
}

TEST(WlanStatus, InterfaceThatIsNotThere) {
  WlanStatus status;
  EXPECT_NE(wifi_link_status("nosuch0", status), 0);
  EXPECT_EQ(status.ssid, nullptr);
}

}  // namespace
}  // namespace nimbus
