#include "base/log.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <mutex>
#include <type_traits>

namespace nimbus {
namespace {

constexpr int kPatienceMs = 100;

/// One of the two standard streams.
class Stream {
 public:
  explicit constexpr Stream(int fd) noexcept : fd_(fd) {}

  void write(std::initializer_list<std::string_view> parts) noexcept {
    std::array<char, PIPE_BUF> piece;
    std::size_t used = 0;
    for (std::string_view rest : parts) {
      while (!rest.empty()) {
        if (used == piece.size()) {
          if (!write_piece({piece.data(), used})) return;
          used = 0;
        }
        const std::size_t taken = rest.copy(piece.data() + used, piece.size() - used);
        rest.remove_prefix(taken);
        used += taken;
      }
    }
    if (used > 0) write_piece({piece.data(), used});
  }

 private:
  /// Whether it went out: a pipe or a socket that says it is writable takes PIPE_BUF bytes at once.
  bool write_piece(std::string_view piece) noexcept {
    // The room that one writer was told of is not another's.
    const std::lock_guard turn(turn_);
    pollfd writable{fd_, POLLOUT, 0};
    // Only the first text that is not taken is waited for: those behind it would add up.
    const bool taken = poll(&writable, 1, is_stuck_ ? 0 : kPatienceMs) != 0;
    is_stuck_ = !taken;
    return taken && ::write(fd_, piece.data(), piece.size()) > 0;
  }

  int fd_;
  std::mutex turn_;
  bool is_stuck_ = false;
};

static_assert(std::is_trivially_destructible_v<Stream>);
constinit Stream output{STDOUT_FILENO};
constinit Stream errors{STDERR_FILENO};

}  // namespace

void log_text(const char* format, ...) noexcept {
  std::array<char, 1024> text;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  if (length <= 0) return;
  log_parts({{text.data(), std::min(static_cast<std::size_t>(length), text.size() - 1)}});
}

void log_parts(std::initializer_list<std::string_view> parts) noexcept { errors.write(parts); }

void print_parts(std::initializer_list<std::string_view> parts) noexcept { output.write(parts); }

}  // namespace nimbus
