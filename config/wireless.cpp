#include "config/wireless.h"

#include <net/if.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

#include "base/json.h"
#include "base/shell.h"

namespace nimbus {
namespace {

constexpr std::size_t kLineSize = 1024;
constexpr std::size_t kLinkStatusLineSize = 99;
constexpr std::size_t kSsidSize = 40;

/// The empty name is one too: the tool then looks at no interface.
bool is_interface_name(std::string_view name) {
  return name.size() < IFNAMSIZ && std::all_of(name.begin(), name.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' ||
                  c == '_';
         });
}

/// A command on an interface, or null when its name is none.
const char* command_on(std::span<char> buffer, std::string_view before, const char* iface,
                       std::string_view after) {
  if (!is_interface_name(iface)) return nullptr;
  return TextBuilder(buffer).add(before).add(iface).add(after).c_str();
}

/// The name in quotes at the end of a scan's line: less the opening quote, and less the closing one
/// with the line end.
std::string_view quoted_name(std::string_view rest) {
  constexpr std::size_t kAround = 3;
  return rest.size() < kAround ? std::string_view{} : rest.substr(1, rest.size() - kAround);
}

}  // namespace

int wifi_scan(const char* iface, TextBuilder& list) noexcept {
  constexpr std::string_view kMark = "ESSID:";
  std::array<char, 64> buffer;
  const char* const command = command_on(buffer, "iwlist ", iface, " scan 2>/dev/null");
  if (command == nullptr) return -1;
  ShellOutput output(command);
  std::array<char, kLineSize> line;
  bool first = true;
  while (output.next_line(line)) {
    const std::string_view text = line.data();
    const auto mark = text.find(kMark);
    if (mark == std::string_view::npos) continue;
    if (!first) list.add(",");
    list.add(quoted_name(text.substr(mark + kMark.size())));
    first = false;
  }
  return output.close();
}

const char* wifi_status_ssid(const char* iface) noexcept {
  static std::array<char, kSsidSize> ssid;
  constexpr std::size_t kPrefixSize = 5;  // "ssid="
  TextBuilder(ssid).add("");
  std::array<char, 64> buffer;
  const char* const command = command_on(buffer, "wpa_cli -i ", iface, " status 2>/dev/null");
  if (command == nullptr) return ssid.data();
  ShellOutput output(command);
  std::array<char, kLineSize> line;
  while (output.next_line(line)) {
    const std::string_view text = line.data();
    if (text.find("ssid") == std::string_view::npos) continue;
    if (text.find("bssid") != std::string_view::npos) continue;
    TextBuilder(ssid).add(text.substr(std::min(text.size(), kPrefixSize)));
  }
  return ssid.data();
}

int wifi_link_status(const char* iface, WlanStatus& status) noexcept {
  static std::array<char, kLinkStatusLineSize> ssid;
  std::array<char, 64> buffer;
  const char* const command = command_on(buffer, "./bin/wlanstatus ", iface, "");
  if (command == nullptr) return -1;
  ShellOutput output(command);
  std::array<char, kLinkStatusLineSize> line;
  while (output.next_line(line)) {
    const JsonObject json(line.data());
    if (const char* const text = json.text("ssid")) {
      status.ssid = TextBuilder(ssid).add(text).c_str();
    }
    if (const int* const freq = json.integer("freq")) status.freq = *freq;
    const auto take_byte = [&json](const char* name, std::uint8_t& byte) {
      if (const int* const value = json.integer(name)) byte = static_cast<std::uint8_t>(*value);
    };
    take_byte("quality", status.quality);
    take_byte("quality_max", status.quality_max);
    take_byte("signal", status.signal);
  }
  return output.close();
}

}  // namespace nimbus
