// Whatever the board's network tools print, about interfaces of whatever name, results stay within
// their buffers. The input is a name up to the line's end, then the tools' output.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/text_builder.h"
#include "config/run.h"
#include "config/wireless.h"
#include "tests/fuzz/board.h"
#include "tests/fuzz/invariants.h"

namespace {

using nimbus::fuzz::require;

/// A list in a buffer that ends where the buffer ends.
void check_scan(const char* iface, std::size_t output, std::size_t room) {
  std::vector<char> buffer(room);
  nimbus::TextBuilder list(buffer);
  nimbus::wifi_scan(iface, list);
  require(list.view().size() < room && std::strlen(buffer.data()) == list.view().size());
  require(list.view().size() <= output);
}

void check_status(const char* iface) {
  constexpr std::size_t kNameSize = 40;
  constexpr std::size_t kLineSize = 99;
  require(std::strlen(nimbus::wifi_status_ssid(iface)) < kNameSize);
  nimbus::WlanStatus status;
  nimbus::wifi_link_status(iface, status);
  require(status.ssid == nullptr || std::strlen(status.ssid) < kLineSize);
}

void check_captured(std::size_t output, std::size_t room) {
  const char* const captured = nimbus::run_capture("iwlist");
  require(captured == nullptr || std::strlen(captured) <= output);
  std::vector<char> line(room);
  nimbus::run_last_line("iwlist", line);
  const std::string_view text(line.data(), room);
  require(text.find_first_of("\r\n\t") == std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  // Numbers are taken from the input's end.
  FuzzedDataProvider provider(bytes, size);
  const int status = static_cast<int>(provider.ConsumeIntegralInRange(0U, 0xFF01U)) - 1;
  const auto room = provider.ConsumeIntegralInRange<std::size_t>(1, 1100);
  const std::string input = provider.ConsumeRemainingBytesAsString();
  const auto line_end = input.find('\n');
  const std::string iface = input.substr(0, line_end);
  const auto output =
      std::string_view(input).substr(line_end == std::string::npos ? input.size() : line_end + 1);
  nimbus::fuzz::set_tools(output, status);
  check_scan(iface.c_str(), output.size(), room);
  check_status(iface.c_str());
  check_captured(output.size(), room);
  return 0;
}
