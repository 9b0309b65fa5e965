// The simulator's standard streams and the signals that end it.
#pragma once

#include <exception>
#include <string>

#include "base/unique_fd.h"

namespace nimbus::sim {

/// Standard output, line by line.
class Console {
 public:
  /// Writes the line with its end. Nothing more is written once nobody reads it.
  void line(const std::string& text);
  /// Whether the reader has gone.
  [[nodiscard]] bool closed() const { return closed_; }
  void close() { closed_ = true; }

 private:
  bool closed_ = false;
};

/// A problem that stands on standard error already.
struct AlreadySaid : std::exception {};

/// Opens what is closed of the standard streams on /dev/null, lest something else takes their
/// numbers.
void open_standard_streams();

/// Says a problem on standard error, behind the simulator's name.
void complain(const std::string& text);

/// Catches SIGINT and SIGTERM for the life of the process, and ignores SIGPIPE. One at a time.
class StopSignals {
 public:
  /// Throws Failure when the system refuses.
  StopSignals();

  /// For poll(2): readable from the first signal on.
  [[nodiscard]] int fd() const { return event_.get(); }
  /// Whether one has come.
  [[nodiscard]] static bool caught();

 private:
  UniqueFd event_;
};

}  // namespace nimbus::sim
