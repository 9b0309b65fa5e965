// Console texts.
#pragma once

namespace nimbus {

/// Writes a formatted text to standard error in one write, so that lines of several threads and
/// processes never mix inside a text. Longer texts are cut to 1 KiB. Any thread.
[[gnu::format(printf, 1, 2)]] void log_text(const char* format, ...) noexcept;

}  // namespace nimbus
