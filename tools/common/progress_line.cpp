#include "tools/common/progress_line.h"

#include <unistd.h>

namespace nimbus::tools {

ProgressLine::ProgressLine() : terminal_(isatty(STDERR_FILENO) == 1) {}

double ProgressLine::interval() const {
  constexpr double kTerminal = 0.2;
  constexpr double kFile = 1;
  return terminal_ ? kTerminal : kFile;
}

void ProgressLine::show(const std::string& text, bool last) const {
  // On a terminal: to the start of the line, and away with what stands there.
  const std::string line = terminal_ ? "\r\x1b[K" + text + (last ? "\n" : "") : text + "\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace nimbus::tools
