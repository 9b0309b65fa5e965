#include "bench/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace nimbus::bench {
namespace {

constexpr std::chrono::seconds kTextLimit{5};

void check(int error, const std::string& what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

int occurrences(std::string_view text, std::string_view part) {
  int count = 0;
  for (auto at = text.find(part); at != std::string_view::npos;
       at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

std::string last_line(std::string text) {
  while (text.ends_with('\n')) text.pop_back();
  return text.substr(text.rfind('\n') + 1);
}

}  // namespace

Child::Child(std::vector<std::string> command) : name_(command.front()) {
  std::array<int, 2> ends{};
  check(pipe2(ends.data(), O_CLOEXEC) == 0 ? 0 : errno, "pipe");
  errors_ = UniqueFd(ends[0]);
  const UniqueFd write_end(ends[1]);

  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (auto& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  check(posix_spawn_file_actions_init(&actions), "posix_spawn");
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.get(), STDERR_FILENO);
  const int error =
      posix_spawnp(&pid_, name_.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  check(error, "cannot start " + name_);
  check(clock_getcpuclockid(pid_, &cpu_clock_), "clock_getcpuclockid");
}

Child::Child(Child&& other) noexcept
    : name_(std::move(other.name_)),
      pid_(std::exchange(other.pid_, -1)),
      cpu_clock_(other.cpu_clock_),
      errors_(std::move(other.errors_)),
      written_(std::move(other.written_)) {}

Child::~Child() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Child::wait_for(std::string_view text, int count) {
  const auto deadline = std::chrono::steady_clock::now() + kTextLimit;
  while (occurrences(written_, text) < count) {
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd readable{errors_.get(), POLLIN, 0};
    std::array<char, 4096> piece{};
    ssize_t length = 0;
    if (rest.count() > 0 && poll(&readable, 1, static_cast<int>(rest.count())) > 0) {
      length = read(errors_.get(), piece.data(), piece.size());
    }
    if (length <= 0) {
      throw std::runtime_error(name_ +
                               " is silent or has ended; its last words: " + last_line(written_));
    }
    written_.append(piece.data(), static_cast<std::size_t>(length));
  }
}

std::chrono::nanoseconds Child::cpu_time() const {
  timespec time{};
  check(clock_gettime(cpu_clock_, &time) == 0 ? 0 : errno, "the CPU time of " + name_);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

double Child::resident_kib() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string line; std::getline(status, line);) {
    constexpr std::string_view kKey = "VmRSS:";
    if (line.starts_with(kKey)) return std::stod(line.substr(kKey.size()));
  }
  throw std::runtime_error("no VmRSS of " + name_);
}

}  // namespace nimbus::bench
