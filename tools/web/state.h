// What is known of the service, the camera and the server, for browsers: groups of members, each
// with its value as JSON. Who has the whole once needs only what changes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace nimbus::web {

class State {
 public:
  /// Every group is there from the start, with nothing reported.
  State();

  /// Sets a member to a JSON text.
  void set(std::string_view group, std::string_view member, std::string json);

  /// The group was reported now: milliseconds on the server's clock.
  void reported(std::string_view group, std::uint64_t now);

  /// The JSON text of a member; empty when it is not known.
  [[nodiscard]] std::string get(std::string_view group, std::string_view member) const;

  /// One JSON object, all groups in it.
  [[nodiscard]] std::string whole() const;

  /// What has changed since the last call, as a JSON merge patch; empty when nothing has.
  [[nodiscard]] std::string take_changes();

 private:
  struct Member {
    std::string json;
    bool changed = true;
  };
  using Group = std::map<std::string, Member, std::less<>>;

  std::map<std::string, Group, std::less<>> groups_;
  bool changed_ = false;
};

}  // namespace nimbus::web
