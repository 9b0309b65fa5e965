#include "base/shell.h"

#include <cstdlib>
#include <utility>

namespace nimbus {

int run_shell(const char* command) noexcept { return std::system(command); }

// "e": another thread's command must not inherit the pipe and keep it open.
ShellOutput::ShellOutput(const char* command) noexcept : pipe_(popen(command, "re")) {}

bool ShellOutput::next_line(std::span<char> buffer) noexcept {
  // Without room for a character, fgets(3) would find an empty line again and again.
  return pipe_ != nullptr && buffer.size() > 1 &&
         std::fgets(buffer.data(), static_cast<int>(buffer.size()), pipe_) != nullptr;
}

std::string_view ShellOutput::read(std::span<char> buffer) noexcept {
  if (pipe_ == nullptr) return {};
  return {buffer.data(), std::fread(buffer.data(), 1, buffer.size(), pipe_)};
}

int ShellOutput::close() noexcept {
  return pipe_ == nullptr ? -1 : pclose(std::exchange(pipe_, nullptr));
}

}  // namespace nimbus
