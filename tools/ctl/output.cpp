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

bool is_control(char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; }

}  // namespace

void print_line(std::string_view text) {
  std::string line(text);
  std::replace_if(line.begin(), line.end(), is_control, '?');
  line += '\n';
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
