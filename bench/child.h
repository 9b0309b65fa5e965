// A relay under test, as a child process of the benchmark.
#pragma once

#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace nimbus::bench {

/// A running child process. It is killed, and waited for, when it goes out of scope.
class Child {
 public:
  /// Starts `command`, which is looked for in PATH. Its standard error is kept for wait_for(), its
  /// standard output goes nowhere. Throws std::system_error.
  explicit Child(std::vector<std::string> command);
  ~Child();
  Child(Child&& other) noexcept;
  Child& operator=(Child&&) = delete;

  /// Waits until the child has written `text` to its standard error `count` times since its start.
  /// Throws when it does not within five seconds, or ends.
  void wait_for(std::string_view text, int count = 1);

  /// The CPU time of all its threads so far, to the nanosecond; its own children do not count.
  [[nodiscard]] std::chrono::nanoseconds cpu_time() const;

  /// Its resident memory (VmRSS) in KiB.
  [[nodiscard]] double resident_kib() const;

 private:
  std::string name_;
  pid_t pid_ = -1;
  clockid_t cpu_clock_ = 0;
  UniqueFd errors_;
  std::string written_;
};

}  // namespace nimbus::bench
