// Console texts. A console that is gone, full or not read loses texts; only the first that it does
// not take is waited for, 100 ms: unless a tool, which writes there as well, takes the room between
// the look and the write.
#pragma once

#include <initializer_list>
#include <string_view>

namespace nimbus {

/// Writes a formatted text to standard error in one write, so that lines of several threads and
/// processes never mix inside a text. Longer texts are cut to 1 KiB. Any thread.
[[gnu::format(printf, 1, 2)]] void log_text(const char* format, ...) noexcept;

/// Writes texts, joined, to standard error: in one write up to 4 KiB (PIPE_BUF, pipe(7)), beyond
/// that in pieces. Any thread.
void log_parts(std::initializer_list<std::string_view> parts) noexcept;

/// The same to standard output.
void print_parts(std::initializer_list<std::string_view> parts) noexcept;

}  // namespace nimbus
