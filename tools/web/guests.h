// How many connections there are, and of whom: a stranger must not take all places.
#pragma once

#include <map>
#include <string>

namespace nimbus::web {

class Guests {
 public:
  static constexpr std::size_t kMost = 200;
  static constexpr std::size_t kMostOfOne = 20;

  /// A place for one more connection of that address. False when there is none.
  [[nodiscard]] bool enter(const std::string& address) {
    if (count_ >= kMost) return false;
    std::size_t& of_one = addresses_[address];
    if (of_one >= kMostOfOne) return false;
    ++of_one;
    ++count_;
    return true;
  }

  void leave(const std::string& address) {
    const auto found = addresses_.find(address);
    if (found == addresses_.end()) return;
    --count_;
    if (--found->second == 0) addresses_.erase(found);
  }

  [[nodiscard]] std::size_t count() const { return count_; }

 private:
  std::map<std::string, std::size_t> addresses_;
  std::size_t count_ = 0;
};

}  // namespace nimbus::web
