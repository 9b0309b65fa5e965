// JSON as text: what is sent is put together from ready pieces.
#pragma once

#include <string>
#include <string_view>

#include "tools/ctl/value.h"

namespace nimbus::web {

/// The text between quotes, escaped. What is no UTF-8 becomes U+FFFD.
[[nodiscard]] std::string quoted(std::string_view text);

[[nodiscard]] std::string json_text(bool value);
[[nodiscard]] std::string json_text(std::int64_t value);
[[nodiscard]] std::string json_text(double value);
[[nodiscard]] std::string json_text(const ctl::Value& value);

}  // namespace nimbus::web
