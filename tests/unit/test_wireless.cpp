#include "config/wireless.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/board_tools.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

using namespace std::string_literals;
using Calls = std::vector<std::string>;

class Wireless : public testing::Test {
 protected:
  std::string scan(const char* iface = "wlan0", std::size_t size = 4096) {
    std::vector<char> buffer(size);
    TextBuilder list(buffer);
    status = wifi_scan(iface, list);
    return std::string(list.view());
  }

  test::BoardTools tools;
  int status = 0;
};

// --- Scan --------------------------------------------------------------------------------------

TEST_F(Wireless, ScanListsTheNames) {
  const struct {
    std::string output;
    std::string names;
  } kRows[] = {
      {"", ""},
      {"wlan0     No scan results\n", ""},
      {"  ESSID:\"alpha\"\n  Quality=1\nESSID:\"beta\"\n", "alpha,beta"},
      {"ESSID:\"\"\nESSID:\"b\"\n", ",b"},
      {"ESSID:\"a\"\nESSID:\"\"\nESSID:\"a\"\n", "a,,a"},
      {"essid:\"a\"\nSSID:\"b\"\n", ""},
      {"ESSID:\"x ESSID:y\"\n", "x ESSID:y"},
      {"ESSID:\"a,b\\\"c\"\n", "a,b\\\"c"},
      {"ESSID:\"%n%s\"\n", "%n%s"},
      {"ESSID:\"\xc3\xa9\"\n", "\xc3\xa9"},
      // What stands behind the mark is shorter than what stands around a name.
      {"ESSID:", ""},
      {"ESSID:\n", ""},
      {"ESSID:\"\n", ""},
      {"ESSID:\"a", ""},
      {"ESSID:off/any\n", "ff/an"},
      // The last line has no end: two characters go all the same.
      {"ESSID:\"abc\"", "ab"},
      {"ESSID:\"a\"\r\n", "a\""},
      {"ESSID:\"a\0b\"\n"s, ""},
      {"x\0ESSID:\"a\"\nESSID:\"b\"\n"s, "b"},
  };
  for (const auto& row : kRows) {
    tools.print("iwlist", row.output);
    EXPECT_EQ(scan(), row.names) << row.output;
    EXPECT_EQ(status, 0);
  }
}

/// A line is read in pieces of 1,023 bytes, each a line of its own.
TEST_F(Wireless, ScanOfALongLine) {
  const std::string mark = "ESSID:\"";
  for (const int each : {1020, 1021, 1022, 1023, 1024, 5000}) {
    SCOPED_TRACE(each);
    const auto length = static_cast<std::size_t>(each);
    const std::string line = mark + std::string(length - mark.size() - 1, 'a') + "\"\n";
    const std::string piece = line.substr(0, 1023);
    tools.print("iwlist", line + "ESSID:\"b\"\n");
    EXPECT_EQ(scan(), piece.substr(mark.size(), piece.size() - mark.size() - 2) + ",b");
  }
  // A mark that lies across two pieces is none; one at the very end of a piece has no name.
  tools.print("iwlist", std::string(1020, ' ') + "ESSID:\"a\"\n");
  EXPECT_EQ(scan(), "");
  tools.print("iwlist", std::string(1017, ' ') + "ESSID:\"a\"\nESSID:\"b\"\n");
  EXPECT_EQ(scan(), ",b");
}

TEST_F(Wireless, ScanIsBoundedByTheList) {
  tools.print("iwlist", "ESSID:\"alpha\"\nESSID:\"beta\"\n");
  EXPECT_EQ(scan("wlan0", 1), "");
  EXPECT_EQ(scan("wlan0", 4), "alp");
  EXPECT_EQ(scan("wlan0", 7), "alpha,");
  EXPECT_EQ(scan("wlan0", 11), "alpha,beta");
}

TEST_F(Wireless, ScanAppends) {
  tools.print("iwlist", "ESSID:\"alpha\"\n");
  std::array<char, 64> buffer;
  TextBuilder list(buffer);
  list.add("before ");
  wifi_scan("wlan0", list);
  EXPECT_EQ(list.view(), "before alpha");
}

TEST_F(Wireless, ScanRunsTheToolAndTellsHowItEnded) {
  tools.print("iwlist", "ESSID:\"alpha\"\n", 7);
  EXPECT_EQ(scan("wifi0"), "alpha");
  EXPECT_EQ(WEXITSTATUS(status), 7);
  EXPECT_EQ(scan(""), "alpha");
  EXPECT_EQ(tools.calls(), (Calls{"iwlist wifi0 scan", "iwlist scan"}));
}

TEST_F(Wireless, WhatTheToolsComplainOfIsDropped) {
  tools.answer("iwlist", "echo 'ESSID:\"a\"' >&2");
  tools.answer("wpa_cli", "echo 'ssid=a' >&2");
  test::Console console;
  EXPECT_EQ(scan(), "");
  EXPECT_STREQ(wifi_status_ssid("wlan0"), "");
  EXPECT_EQ(console.texts(), test::Texts{});
}

// --- Client connection -------------------------------------------------------------------------

TEST_F(Wireless, StatusNamesTheNetwork) {
  const struct {
    std::string output;
    std::string ssid;
  } kRows[] = {
      {"bssid=00:11:22:33:44:55\nssid=home\nid=0\n", "home\n"},
      {"ssid=one\nssid=two\n", "two\n"},
      {"ssid=last", "last"},
      {"ssid=\n", "\n"},
      {"ssid=", ""},
      {"ssid", ""},
      {"ssi\nid=1\n", ""},
      {"a ssid here\n", "d here\n"},
      {"ssid=my bssid\n", ""},
      {"ssid=%n%s\n", "%n%s\n"},
      {"ssid=" + std::string(38, 'a') + "\n", std::string(38, 'a') + "\n"},
      {"ssid=" + std::string(39, 'a') + "\n", std::string(39, 'a')},
      {"ssid=" + std::string(900, 'a') + "\n", std::string(39, 'a')},
      {"ssid=" + std::string(5000, 'a') + "\n", std::string(39, 'a')},
      {"ssid=longer\nssid=b\n", "b\n"},
      {"", ""},
  };
  for (const auto& row : kRows) {
    tools.print("wpa_cli", row.output);
    EXPECT_EQ(wifi_status_ssid("wlan0"), row.ssid) << row.output;
  }
  tools.calls();
  wifi_status_ssid("wifi0");
  EXPECT_EQ(tools.calls(), Calls{"wpa_cli -i wifi0 status"});
}

/// The connection as "./bin/wlanstatus" has printed it.
class WirelessLink : public Wireless {
 protected:
  WirelessLink() {
    test::BoardTools::install(folder_ / "bin" / "wlanstatus");
    std::filesystem::current_path(folder_);
  }
  ~WirelessLink() override { std::filesystem::current_path("/"); }

  void expect(const std::string& output, std::int32_t freq, int quality, int max, int signal,
              const char* ssid) {
    SCOPED_TRACE(output);
    tools.print("wlanstatus", output);
    WlanStatus link{.freq = 1, .quality = 2, .quality_max = 3, .signal = 4, .ssid = "before"};
    EXPECT_EQ(wifi_link_status("wlan0", link), 0);
    EXPECT_EQ(link.freq, freq);
    EXPECT_EQ(link.quality, quality);
    EXPECT_EQ(link.quality_max, max);
    EXPECT_EQ(link.signal, signal);
    EXPECT_STREQ(link.ssid, ssid);
  }

 private:
  const std::filesystem::path folder_ = "/run/installation";
};

TEST_F(WirelessLink, StatusTakesWhatIsNamed) {
  expect(R"({"ssid":"home","freq":2412,"quality":60,"quality_max":70,"signal":-50})", 2412, 60, 70,
         206, "home");
  expect("{\"SSID\":\"home\"}\n{\"Freq\":5180}\n", 5180, 2, 3, 4, "home");
  expect("{\"freq\":1}\n{\"freq\":2}", 2, 2, 3, 4, "before");
  expect(R"({"freq":1e99,"quality":256,"quality_max":-1,"signal":300.9})", 2147483647, 0, 255, 44,
         "before");
  expect(R"({"ssid":7,"freq":"2412","quality":null,"quality_max":[1],"signal":true})", 1, 2, 3, 4,
         "before");
  expect(R"({"ssid":""})", 1, 2, 3, 4, "");
  for (const char* const nothing : {"", "\n", "{", "no JSON\n", "[1]", "{}"}) {
    expect(nothing, 1, 2, 3, 4, "before");
  }
}

/// A line is read in pieces of 98 bytes, each a line of its own.
TEST_F(WirelessLink, StatusOfLongLines) {
  const std::string frame = R"({"ssid":""})";
  const std::string longest(98 - frame.size(), 'a');
  expect(R"({"ssid":")" + longest + "\"}\n", 1, 2, 3, 4, longest.c_str());
  expect(R"({"ssid":"a)" + longest + "\"}\n", 1, 2, 3, 4, "before");
  expect("{\"ssid\":\"" + std::string(5000, 'a') + "\"}\n{\"freq\":7}\n", 7, 2, 3, 4, "before");
}

TEST_F(WirelessLink, StatusRunsTheToolAndTellsHowItEnded) {
  tools.print("wlanstatus", "{\"freq\":7}", 5);
  WlanStatus link;
  EXPECT_EQ(WEXITSTATUS(wifi_link_status("wifi0", link)), 5);
  EXPECT_EQ(link.freq, 7);
  EXPECT_EQ(tools.calls(), Calls{"wlanstatus wifi0"});
}

// --- Tools that do not run ---------------------------------------------------------------------

// Not on the fixture: the sanitizers cannot look at its type without descriptors.
TEST(WirelessTools, CannotBeStarted) {
  const test::BoardTools tools;
  tools.print("wpa_cli", "ssid=home\n");
  EXPECT_STREQ(wifi_status_ssid("wlan0"), "home\n");
  std::array<char, 16> buffer;
  TextBuilder list(buffer);
  WlanStatus link{.freq = 7};
  const test::NoDescriptors none;
  EXPECT_EQ(wifi_scan("wlan0", list), -1);
  EXPECT_EQ(list.view(), "");
  EXPECT_STREQ(wifi_status_ssid("wlan0"), "");
  EXPECT_EQ(wifi_link_status("wlan0", link), -1);
  EXPECT_EQ(link.freq, 7);
}

/// A name that is none never reaches the shell.
TEST_F(Wireless, NamesThatAreNone) {
  tools.print("wpa_cli", "ssid=home\n");
  for (const char* const name : {"a b", "a;reboot", "$(reboot)", "`reboot`", "a\nreboot", "a'b",
                                 "a\"b", "a/b", "a&b", "a>b", "\xc3\xa9", "sixteen-letters-"}) {
    SCOPED_TRACE(name);
    WlanStatus link;
    EXPECT_EQ(scan(name), "");
    EXPECT_EQ(status, -1);
    EXPECT_STREQ(wifi_status_ssid(name), "");
    EXPECT_EQ(wifi_link_status(name, link), -1);
  }
  EXPECT_EQ(tools.calls(), Calls{});
  EXPECT_STREQ(wifi_status_ssid("fifteen_letter."), "home\n");
}

}  // namespace
}  // namespace nimbus
