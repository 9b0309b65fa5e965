#include "config/run.h"

#include <array>

#include "base/shell.h"

namespace nimbus {

const char* run_capture(const char* command) noexcept {
  constexpr std::size_t kSize = 10'000;
  static std::array<char, kSize + 1> buffer;
  ShellOutput output(command);
  if (!output) return nullptr;
  buffer.fill('\0');
  output.read(std::span(buffer).first<kSize>());
  return buffer.data();
}

int run_last_line(const char* command, std::span<char> buffer) noexcept {
  ShellOutput output(command);
  if (!output) return -1;
  while (output.next_line(buffer)) {
  }
  for (char& c : buffer) {
    if (c == '\r' || c == '\n') c = '\0';
    if (c == '\t') c = ' ';
  }
  return output.close();
}

int find_index(std::string_view text, std::string_view what) noexcept {
  const auto found = text.find(what);
  return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

}  // namespace nimbus
