#include "base/log.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace nimbus {

void log_text(const char* format, ...) noexcept {
  std::array<char, 1024> text;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  if (length <= 0) return;
  const auto bytes = std::min(static_cast<std::size_t>(length), text.size() - 1);
  // A console that is gone or full is no reason to stop: the result has no use.
  [[maybe_unused]] const auto written = write(STDERR_FILENO, text.data(), bytes);
}

void log_parts(std::initializer_list<std::string_view> parts) noexcept {
  std::array<iovec, 8> pieces;
  std::size_t count = 0;
  for (const std::string_view part : parts) {
    if (count == pieces.size()) break;
    // writev(2) does not write through the pointer.
    pieces[count++] = {const_cast<char*>(part.data()), part.size()};
  }
  [[maybe_unused]] const auto written =
      writev(STDERR_FILENO, pieces.data(), static_cast<int>(count));
}

}  // namespace nimbus
