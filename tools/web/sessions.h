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

/// Marks of browsers from which the operator has logged in before: strangers who guess use up the
/// tries of strangers only. They live in memory, as log-ins do.
class Marks {
 public:
  static constexpr std::size_t kMost = 100;

  /// A new one: a word that nobody can guess.
  [[nodiscard]] std::string begin();
  [[nodiscard]] bool has(std::string_view word) const;
  void clear() { words_.clear(); }

 private:
  std::deque<std::string> words_;  // the oldest first
};

/// How often a password may be tried in a minute: by one, and by all together, because each try
/// costs a tenth of a second of a board's processor, and one waits for the other. Those who try
/// again and again leave room for others' first try.
class Tries {
 public:
  static constexpr std::size_t kMostOfOne = 5;
  static constexpr std::size_t kMostAgain = 30;  ///< of all who have tried before in that minute
  static constexpr std::size_t kMostFirst = 60;  ///< of all who have not

  /// Whether `who`, an address or a mark's word, may try now; counts it then.
  [[nodiscard]] bool allowed(const std::string& who, Time now);

 private:
  struct Try {
    Time time;
    std::string who;
    bool first;
  };
  std::deque<Try> tries_;  // of the last minute
};

/// The value of a cookie in a Cookie header; empty when it has none.
[[nodiscard]] std::string_view cookie_of(std::string_view header, std::string_view name);

/// A value of a form, as browsers post it.
[[nodiscard]] std::string form_value(std::string_view form, std::string_view name);

}  // namespace nimbus::web
