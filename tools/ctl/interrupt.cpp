#include "tools/ctl/interrupt.h"

#include <csignal>

namespace nimbus::ctl {
namespace {

volatile std::sig_atomic_t noted = 0;

void note(int /*unused*/) { noted = 1; }

}  // namespace

void catch_signals() {
  // No restarting of system calls: a write to a pipe that nobody empties must end, too.
  struct sigaction action {};
  action.sa_handler = note;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

bool interrupted() { return noted != 0; }

}  // namespace nimbus::ctl
