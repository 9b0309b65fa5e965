#include "base/shell.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "tests/unit/board_tools.h"
#include "tests/unit/support.h"

namespace nimbus {
namespace {

bool exited(int status, int code) { return WIFEXITED(status) && WEXITSTATUS(status) == code; }

bool killed(int status, int signal) { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }

/// The lines that a command's output is read as.
std::vector<std::string> lines_of(const char* command, std::size_t size) {
  ShellOutput output(command);
  std::vector<char> buffer(size);
  std::vector<std::string> lines;
  while (output.next_line(buffer)) lines.emplace_back(buffer.data());
  return lines;
}

TEST(Shell, TellsHowACommandEnded) {
  EXPECT_TRUE(exited(run_shell("true"), 0));
  EXPECT_TRUE(exited(run_shell("exit 3"), 3));
  EXPECT_TRUE(exited(run_shell("exec /no/such/tool 2>/dev/null"), 127));
  EXPECT_TRUE(killed(run_shell("kill -9 $$"), SIGKILL));
}

TEST(Shell, ReadsOutputByLines) {
  using Lines = std::vector<std::string>;
  const struct {
    const char* command;
    std::size_t size;
    Lines lines;
  } kRows[] = {
      {"true", 16, {}},
      {"printf 'one\\ntwo\\n'", 16, {"one\n", "two\n"}},
      {"printf 'one\\n\\ntwo'", 16, {"one\n", "\n", "two"}},
      {"printf 'ends\\r\\n'", 16, {"ends\r\n"}},
      {"printf '1234567\\n1234\\n'", 5, {"1234", "567\n", "1234", "\n"}},
      {"printf 'ab\\n'", 2, {"a", "b", "\n"}},
      {"printf 'a\\0b\\nc\\n'", 16, {"a", "c\n"}},
      {"printf one; sleep 0.1; printf ' more'", 16, {"one more"}},
      {"printf 'error\\n' >&2", 16, {}},
  };
  const test::StandardError silent(-1);
  for (const auto& row : kRows) EXPECT_EQ(lines_of(row.command, row.size), row.lines);
}

TEST(Shell, ABufferWithoutRoomHoldsNoLine) {
  EXPECT_EQ(lines_of("echo line", 0).size(), 0U);
  EXPECT_EQ(lines_of("echo line", 1).size(), 0U);
}

TEST(Shell, ReadsUpToTheBuffer) {
  ShellOutput output("printf 1234; sleep 0.1; printf 567");
  std::array<char, 8> memory;
  memory.fill('#');
  EXPECT_EQ(output.read(std::span(memory).first(6)), "123456");
  EXPECT_EQ(memory[6], '#');
  EXPECT_EQ(output.read(memory), "7");
  EXPECT_EQ(output.read(memory), "");
  EXPECT_TRUE(exited(output.close(), 0));
}

TEST(Shell, ClosesOnce) {
  ShellOutput output("exit 5");
  EXPECT_TRUE(static_cast<bool>(output));
  EXPECT_TRUE(exited(output.close(), 5));
  EXPECT_EQ(output.close(), -1);
  EXPECT_FALSE(static_cast<bool>(output));
}

TEST(Shell, AnEndlessCommandEndsWithItsReader) {
  ShellOutput output("exec yes");
  std::array<char, 16> line;
  EXPECT_TRUE(output.next_line(line));
  EXPECT_TRUE(killed(output.close(), SIGPIPE));
}

TEST(Shell, ACommandThatCannotBeStartedHasNoOutput) {
  const test::NoDescriptors none;
  ShellOutput output("echo line");
  EXPECT_FALSE(static_cast<bool>(output));
  std::array<char, 16> buffer;
  EXPECT_FALSE(output.next_line(buffer));
  EXPECT_EQ(output.read(buffer), "");
  EXPECT_EQ(output.close(), -1);
}

/// A command of another thread would keep the pipe open.
TEST(Shell, ThePipeIsNotInherited) {
  const auto count = [] {
    run_shell("ls /proc/self/fd | wc -l >/run/descriptors");
    return test::read_file("/run/descriptors");
  };
  const std::string before = count();
  const ShellOutput output("true");
  EXPECT_EQ(count(), before);
}

TEST(Shell, LeavesNoDescriptorsAndProcesses) {
  const auto before = test::open_descriptors();
  lines_of("printf 'one\\ntwo\\n'", 16);
  run_shell("true");
  EXPECT_EQ(test::open_descriptors(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
}  // namespace nimbus
