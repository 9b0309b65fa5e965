#include "tools/sim/child.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "tools/common/failure.h"

namespace nimbus::sim {
namespace {

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

Pipe make_pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw tools::Failure(std::string("cannot make a pipe: ") + std::strerror(errno));
  }
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// What a child does before it becomes its program.
class Preparation {
 public:
  Preparation() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
  }
  Preparation(const Preparation&) = delete;
  Preparation& operator=(const Preparation&) = delete;
  ~Preparation() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  void take(const UniqueFd& fd, int as) {
    posix_spawn_file_actions_adddup2(&actions_, fd.get(), as);
  }

  /// 0, or the error.
  int spawn(pid_t& pid, const std::vector<std::string>& arguments) const {
    std::vector<char*> words;
    words.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
      words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    return posix_spawnp(&pid, words[0], &actions_, &attributes_, words.data(), environ);
  }

 private:
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
};

void do_not_wait(const UniqueFd& fd) {
  fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) | O_NONBLOCK);
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments) {
  Pipe to = make_pipe();
  Pipe from = make_pipe();
  Preparation preparation;
  preparation.take(to.read, STDIN_FILENO);
  preparation.take(from.write, STDOUT_FILENO);
  if (const int error = preparation.spawn(pid_, arguments); error != 0) {
    throw tools::Failure("cannot run " + arguments[0] + ": " + std::strerror(error) +
                         "; expected it to be installed");
  }
  input_ = std::move(to.write);
  output_ = std::move(from.read);
  do_not_wait(input_);
  do_not_wait(output_);
}

Child::~Child() {
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace nimbus::sim
