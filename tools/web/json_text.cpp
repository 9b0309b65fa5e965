#include "tools/web/json_text.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace nimbus::web {
namespace {

unsigned char byte_at(std::string_view text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

/// How many bytes the UTF-8 character at `at` has; 0 when there is none.
std::size_t character_size(std::string_view text, std::size_t at) {
  const auto follows = [text](std::size_t i) { return (byte_at(text, i) & 0xC0U) == 0x80U; };
  const unsigned char first = byte_at(text, at);
  const unsigned char second = byte_at(text, at + 1);
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return follows(at + 1) ? 2 : 0;
  if (first >= 0xE0 && first < 0xF0) {
    const bool overlong = first == 0xE0 && second < 0xA0;
    const bool surrogate = first == 0xED && second >= 0xA0;
    return !overlong && !surrogate && follows(at + 1) && follows(at + 2) ? 3 : 0;
  }
  if (first >= 0xF0 && first < 0xF5) {
    const bool outside = (first == 0xF0 && second < 0x90) || (first == 0xF4 && second >= 0x90);
    return !outside && follows(at + 1) && follows(at + 2) && follows(at + 3) ? 4 : 0;
  }
  return 0;
}

void append_escaped(std::string& out, char character) {
  std::array<char, 8> code;
  std::snprintf(code.data(), code.size(), "\\u%04x", static_cast<unsigned char>(character));
  out += code.data();
}

struct ToJson {
  std::string operator()(bool value) const { return json_text(value); }
  std::string operator()(std::int64_t value) const { return json_text(value); }
  std::string operator()(double value) const { return json_text(value); }
  std::string operator()(const std::string& value) const { return quoted(value); }
  std::string operator()(const std::vector<int>& numbers) const {
    std::string list = "[";
    for (const int number : numbers) {
      if (list.size() > 1) list += ',';
      list += std::to_string(number);
    }
    return list + "]";
  }
};

}  // namespace

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t size = character_size(text, at);
    if (size == 0) {
      out += "\xEF\xBF\xBD";
      ++at;
      continue;
    }
    if (text[at] == '"' || text[at] == '\\') {
      out.append("\\").append(1, text[at]);
    } else if (size == 1 && byte_at(text, at) < ' ') {
      append_escaped(out, text[at]);
    } else {
      out += text.substr(at, size);
    }
    at += size;
  }
  return out + "\"";
}

std::string json_text(bool value) { return value ? "true" : "false"; }
std::string json_text(std::int64_t value) { return std::to_string(value); }

std::string json_text(double value) {
  if (!std::isfinite(value)) return "null";
  std::array<char, 40> text;
  std::snprintf(text.data(), text.size(), "%.10g", value);
  return text.data();
}

std::string json_text(const ctl::Value& value) { return std::visit(ToJson(), value); }

}  // namespace nimbus::web
