// Finds out whose password it is, beside the event loop. A hash takes a tenth of a second and more
// on a board, and the picture of everybody shall not wait for it. A thread lives for one password
// only: whoever is not asked has none.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "base/unique_fd.h"
#include "tools/web/passwords.h"

namespace nimbus::web {

/// All of its functions belong to the event loop's thread.
class Verifier {
 public:
  using Done = std::function<void(std::optional<Role>)>;

  /// Throws Failure when the system has no descriptor left.
  Verifier();
  Verifier(const Verifier&) = delete;
  Verifier& operator=(const Verifier&) = delete;
  /// Waits for the hash that is being made; nobody is told any more.
  ~Verifier();

  /// One after the other, in the order of the questions; collect() tells.
  void ask(Passwords passwords, std::string password, Done done);

  /// Readable once there is something to collect.
  [[nodiscard]] int fd() const { return ready_.get(); }
  void collect();

 private:
  struct Question {
    Passwords passwords;
    std::string password;
    Done done;
  };

  void begin();
  void find_out(const Question& question) noexcept;

  UniqueFd ready_;
  std::deque<Question> questions_;  // the first one is the thread's as long as there is a thread
  std::optional<Role> answer_;      // and this, too
  std::thread thread_;
};

}  // namespace nimbus::web
