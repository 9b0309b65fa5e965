#include "config/interface_codes.h"

#include <gtest/gtest.h>

namespace nimbus {
namespace {

TEST(Interfaces, NamesOfCodes) {
  EXPECT_STREQ(interface_name("0"), "");
  EXPECT_STREQ(interface_name("1"), "wifi0");
  EXPECT_STREQ(interface_name("2"), "wlan0");
  for (const char* const code : {"", "3", "-1", "01", "1 ", " 1", "12", "wlan0", "true"}) {
    EXPECT_EQ(interface_name(code), nullptr) << code;
  }
}

TEST(Interfaces, CodesOfNames) {
  EXPECT_STREQ(interface_code("wifi0"), "1");
  EXPECT_STREQ(interface_code("wlan0"), "2");
  for (const char* const name : {"", "wlan", "wlan00", "wlan1", "Wlan0", " wlan0", "eth0", "2"}) {
    EXPECT_STREQ(interface_code(name), "0") << name;
  }
}

}  // namespace
}  // namespace nimbus
