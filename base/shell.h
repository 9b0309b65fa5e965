// Commands of the board, run by the shell.
//
// Every command is a literal, or built from words of our own tables: nothing that came from outside
// ever reaches the shell.
#pragma once

#include <cstdio>
#include <span>
#include <string_view>

namespace nimbus {

/// Runs a command and waits for its end. Returns its wait status, or -1 when it could not be run;
/// most callers have no use for either. Any thread.
int run_shell(const char* command) noexcept;

/// The output of a command that runs meanwhile. Owns the pipe and the process. One thread.
class ShellOutput {
 public:
  explicit ShellOutput(const char* command) noexcept;
  ShellOutput(const ShellOutput&) = delete;
  ShellOutput& operator=(const ShellOutput&) = delete;
  ~ShellOutput() { close(); }

  /// Whether the command could be started.
  explicit operator bool() const noexcept { return pipe_ != nullptr; }

  /// Reads the next line, its line end included, cut to the buffer less a NUL; the rest of a longer
  /// one is the next line. False at the end, and for a buffer without room for a character.
  bool next_line(std::span<char> buffer) noexcept;

  /// Reads up to the buffer's size. Returns what was read.
  std::string_view read(std::span<char> buffer) noexcept;

  /// Waits for the command's end. Returns its wait status, or -1 when it could not be started.
  int close() noexcept;

 private:
  std::FILE* pipe_;
};

}  // namespace nimbus
