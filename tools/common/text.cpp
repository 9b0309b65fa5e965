#include "tools/common/text.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace nimbus::tools {

std::string format_text(const char* format, ...) {
  std::array<char, 256> text;
  std::va_list values;
  va_start(values, format);
  std::vsnprintf(text.data(), text.size(), format, values);
  va_end(values);
  return text.data();
}

std::string exposure_text(const ShutterTime& time) {
  std::string text = time.fraction ? "1/" : "";
  text += std::to_string(time.whole);
  if (time.decimals != 0) text.append(".").append(std::to_string(time.decimals));
  return text + " s";
}

std::string hexadecimal(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    text += format_text(text.empty() ? "%02x" : " %02x", unsigned{byte});
  }
  return text;
}

}  // namespace nimbus::tools
