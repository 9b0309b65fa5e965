// The file of passwords: a line for the operator, and perhaps one for viewers, each a role and a
// hash by crypt(3).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nimbus::web {

enum class Role : bool { viewer, operates };

[[nodiscard]] std::string_view name_of(Role role);

class Passwords {
 public:
  Passwords() = default;

  /// Reads the file; none is as good as an empty one. Throws Failure when it cannot be read, or
  /// others can read it, too.
  [[nodiscard]] static Passwords read(const std::string& path);

  [[nodiscard]] bool any() const { return !operator_hash_.empty() || !viewer_hash_.empty(); }

  /// Whose password it is. Takes a tenth of a second and more, on purpose.
  [[nodiscard]] std::optional<Role> role_of(const std::string& password) const;

  void set(Role role, std::string hash);

  /// Whether both have the same hash for that role, and not only the same password.
  [[nodiscard]] bool agrees(const Passwords& other, Role role) const {
    return hash(role) == other.hash(role);
  }

  /// Writes the file anew, for its owner only. Throws Failure when it cannot.
  void write(const std::string& path) const;

 private:
  [[nodiscard]] const std::string& hash(Role role) const {
    return role == Role::operates ? operator_hash_ : viewer_hash_;
  }

  std::string operator_hash_;
  std::string viewer_hash_;
};

/// The hash of a password: yescrypt. Throws Failure when the system has no such thing.
[[nodiscard]] std::string hash_of(const std::string& password);

}  // namespace nimbus::web
