#include "app/process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <csignal>

namespace nimbus {
namespace {

/// A standard descriptor that was closed would be given to a socket, and console texts sent there.
void open_standard_descriptors() noexcept {
  int fd = 0;
  do {
    fd = open("/dev/null", O_RDWR);
  } while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0) close(fd);
}

void set_signals() noexcept {
  // Inherited as ignored, it would let system(3) lose the status of its command.
  std::signal(SIGCHLD, SIG_DFL);
  // A console whose reader is gone is no reason to end. A handler, unlike SIG_IGN, is not
  // inherited by the commands that the service runs.
  std::signal(SIGPIPE, [](int) {});
}

/// The pauses of 1 ms between sends would each last 6 % longer with the default slack of 50 us.
/// Threads started later inherit the setting (prctl(2)).
void set_timer_slack() noexcept { prctl(PR_SET_TIMERSLACK, 1UL); }

}  // namespace

void prepare_process() noexcept {
  open_standard_descriptors();
  set_signals();
  set_timer_slack();
}

}  // namespace nimbus
