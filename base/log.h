// Console texts.
#pragma once

#include <initializer_list>
#include <string_view>

namespace nimbus {

/// Writes a formatted text to standard error in one write, so that lines of several threads and
/// processes never mix inside a text. Longer texts are cut to 1 KiB. Any thread.
[[gnu::format(printf, 1, 2)]] void log_text(const char* format, ...) noexcept;

/// Writes texts of any length, up to eight, to standard error in one write. Any thread.
void log_parts(std::initializer_list<std::string_view> parts) noexcept;

}  // namespace nimbus
