// Who is logged in, and who guesses.
#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "tools/web/bytes.h"
#include "tools/web/passwords.h"

namespace nimbus::web {

/// Log-ins. They live in memory: a new start of the program ends them all.
class Sessions {
 public:
  static constexpr std::size_t kMost = 100;
  static constexpr std::chrono::hours kRest{12};  ///< without a request

  /// A new one: a word that nobody can guess.
  [[nodiscard]] std::string begin(Role role, Time now);

  /// Whose it is; nothing for one that is none, or has rested too long.
  [[nodiscard]] std::optional<Role> role_of(std::string_view word, Time now);

  /// Whether it has not ended. One that is watched does not rest.
  [[nodiscard]] bool is_on(std::string_view word, Time now) {
    return role_of(word, now).has_value();
  }

  void end(std::string_view word);

  /// Ends all of that role.
  void end(Role role) {
    std::erase_if(sessions_, [role](const auto& one) { return one.second.role == role; });
  }

 private:
  struct Session {
    Role role;
    Time used;
  };
  std::map<std::string, Session, std::less<>> sessions_;
};

/// How often an address, and all of them together, may try a password in a minute. All together,
/// because each try costs a tenth of a second of a board's processor, and one waits for the other.
class Tries {
 public:
  static constexpr std::size_t kMostOfOne = 5;
  static constexpr std::size_t kMostOfAll = 30;

  [[nodiscard]] bool allowed(const std::string& address, Time now);

 private:
  struct Try {
    Time time;
    std::string address;
  };
  std::deque<Try> tries_;
};

/// The value of a cookie in a Cookie header; empty when it has none.
[[nodiscard]] std::string_view cookie_of(std::string_view header, std::string_view name);

/// A value of a form, as browsers post it.
[[nodiscard]] std::string form_value(std::string_view form, std::string_view name);

}  // namespace nimbus::web
