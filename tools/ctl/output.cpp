#include "tools/ctl/output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "tools/common/failure.h"
#include "tools/ctl/interrupt.h"

namespace nimbus::ctl {
namespace {

// The control characters U+0080 to U+009F are two bytes in UTF-8, the second as in Latin-1.
constexpr unsigned char kUpperControlLead = 0xC2;

bool is_control(unsigned char c) { return c < ' ' || c == 0x7F; }
bool is_upper_control(unsigned char c) { return c >= 0x80 && c < 0xA0; }

/// How many bytes of the text make its first character: the whole of it where it is UTF-8, else 1.
std::size_t first_character(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0xC2   ? 1
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 1;
  if (length > text.size()) return 1;
  const bool whole =
      std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(length),
                  [](char c) { return (c & 0xC0) == 0x80; });
  return whole ? length : 1;
}

bool is_obeyed(std::string_view character) {
  const auto first = static_cast<unsigned char>(character[0]);
  if (character.size() == 1) return is_control(first) || is_upper_control(first);
  return first == kUpperControlLead && is_upper_control(static_cast<unsigned char>(character[1]));
}

}  // namespace

std::string shown(std::string_view text) {
  std::string line;
  while (!text.empty()) {
    const std::string_view character = text.substr(0, first_character(text));
    line += is_obeyed(character) ? "?" : character;
    text.remove_prefix(character.size());
  }
  return line;
}

void print_line(std::string_view text) {
  const std::string line = shown(text) + '\n';
  write_bytes({reinterpret_cast<const std::uint8_t*>(line.data()), line.size()});
}

void write_bytes(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes = bytes.subspan(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      throw PipeClosed();
    } else if (errno == EAGAIN) {
      pollfd writable{STDOUT_FILENO, POLLOUT, 0};
      poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      throw tools::Failure(std::string("cannot write: ") + std::strerror(errno));
    }
    if (written < 0 && interrupted()) return;
  }
}

void expect_reader() {
  pollfd pipe{STDOUT_FILENO, 0, 0};
  if (poll(&pipe, 1, 0) > 0 && (pipe.revents & POLLERR) != 0) throw PipeClosed();
}

}  // namespace nimbus::ctl
