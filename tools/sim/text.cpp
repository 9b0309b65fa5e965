#include "tools/sim/text.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace nimbus::sim {

std::string format_text(const char* format, ...) {
  std::array<char, 256> text;
  std::va_list values;
  va_start(values, format);
  std::vsnprintf(text.data(), text.size(), format, values);
  va_end(values);
  return text.data();
}

}  // namespace nimbus::sim
