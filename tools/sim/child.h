// A program that runs beside the simulator, and pipes to and from it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace nimbus::sim {

/// Ends with its owner. Ctrl-C at the terminal does not reach it.
class Child {
 public:
  /// Runs a program of the PATH; its standard error is the simulator's. Throws Failure when it
  /// cannot be run.
  explicit Child(const std::vector<std::string>& arguments);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  /// Its standard input and standard output. Neither waits.
  [[nodiscard]] const UniqueFd& input() const { return input_; }
  [[nodiscard]] const UniqueFd& output() const { return output_; }

 private:
  UniqueFd input_;
  UniqueFd output_;
  pid_t pid_ = -1;
};

}  // namespace nimbus::sim
