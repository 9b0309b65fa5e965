#include "tools/sim/console.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "tools/common/failure.h"

namespace nimbus::sim {
namespace {

volatile std::sig_atomic_t signal_caught = 0;
volatile std::sig_atomic_t signal_event = -1;

extern "C" void on_signal(int /*unused*/) {
  const int saved = errno;
  signal_caught = 1;
  const std::uint64_t one = 1;
  // It only fails when it is readable already.
  [[maybe_unused]] const ssize_t written = write(signal_event, &one, sizeof one);
  errno = saved;
}

}  // namespace

void Console::line(const std::string& text) {
  const std::string whole = text + "\n";
  std::size_t done = 0;
  while (!closed_ && done < whole.size()) {
    const ssize_t written = write(STDOUT_FILENO, whole.data() + done, whole.size() - done);
    if (written >= 0) {
      done += static_cast<std::size_t>(written);
    } else if (errno != EINTR || StopSignals::caught()) {
      // A reader that does not read must not hold up who wants to end this.
      closed_ = true;
    }
  }
}

void open_standard_streams() {
  int fd = -1;
  do {
    fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

void complain(const std::string& text) {
  const std::string line = "nimbus-sim: " + text + "\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

StopSignals::StopSignals() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!event_) throw tools::Failure(std::string("cannot wait for signals: ") + strerror(errno));
  signal_event = event_.get();
  struct sigaction stop {};
  stop.sa_handler = on_signal;  // without SA_RESTART: it interrupts a write that waits
  sigaction(SIGINT, &stop, nullptr);
  sigaction(SIGTERM, &stop, nullptr);
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, nullptr);
}

bool StopSignals::caught() { return signal_caught != 0; }

}  // namespace nimbus::sim
