#include "tools/web/passwords.h"

#include <crypt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "base/unique_fd.h"
#include "tools/common/failure.h"

namespace nimbus::web {
namespace {

using tools::Failure;

constexpr std::size_t kLongestFile = 4096;

Failure failure(const std::string& what, const std::string& path) {
  std::string text = what;
  text.append(" ").append(path).append(": ").append(std::strerror(errno));
  return Failure{text};
}

std::string crypted(const std::string& password, const std::string& setting) {
  const auto data = std::make_unique<crypt_data>();  // 32 KiB
  const char* const hash = crypt_r(password.c_str(), setting.c_str(), data.get());
  return hash == nullptr || hash[0] == '*' ? std::string() : hash;
}

/// In a time that tells nothing of where they differ.
bool equal(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
  }
  return difference == 0;
}

std::string content_of(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    if (errno == ENOENT) return {};
    throw failure("cannot read", path);
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) throw failure("cannot read", path);
  if ((status.st_mode & 077U) != 0) {
    throw Failure("others may read " + path + "; expected mode 0600");
  }
  std::string content(kLongestFile, '\0');
  const ssize_t size = read(file.get(), content.data(), content.size());
  if (size < 0) throw failure("cannot read", path);
  content.resize(static_cast<std::size_t>(size));
  return content;
}

/// Whoever sets a password as root sets it for the service, whose folder it is.
void give_to_owner_of_folder(int file, const std::string& path) {
  const auto slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  struct stat status {};
  if (geteuid() != 0 || stat(folder.c_str(), &status) != 0) return;
  if (fchown(file, status.st_uid, status.st_gid) != 0) throw failure("cannot give away", path);
}

}  // namespace

std::string_view name_of(Role role) { return role == Role::operates ? "operator" : "viewer"; }

Passwords Passwords::read(const std::string& path) {
  Passwords passwords;
  std::istringstream lines(content_of(path));
  for (std::string line; std::getline(lines, line);) {
    const auto blank = line.find(' ');
    const std::string role = line.substr(0, blank);
    const std::string hash = blank == std::string::npos ? "" : line.substr(blank + 1);
    if (role == name_of(Role::operates)) {
      passwords.operator_hash_ = hash;
    } else if (role == name_of(Role::viewer)) {
      passwords.viewer_hash_ = hash;
    } else if (!line.empty()) {
      std::string text = "no role '";
      text.append(role).append("' in ").append(path).append("; expected operator or viewer");
      throw Failure{text};
    }
  }
  return passwords;
}

std::optional<Role> Passwords::role_of(const std::string& password) const {
  // Both are tried always: the time shall not tell which are set.
  const bool operates =
      !operator_hash_.empty() && equal(crypted(password, operator_hash_), operator_hash_);
  const bool views = !viewer_hash_.empty() && equal(crypted(password, viewer_hash_), viewer_hash_);
  if (operates) return Role::operates;
  if (views) return Role::viewer;
  return std::nullopt;
}

void Passwords::set(Role role, std::string hash) {
  std::string& kept = role == Role::operates ? operator_hash_ : viewer_hash_;
  kept = std::move(hash);
}

void Passwords::write(const std::string& path) const {
  std::string content;
  if (!operator_hash_.empty()) content += "operator " + operator_hash_ + "\n";
  if (!viewer_hash_.empty()) content += "viewer " + viewer_hash_ + "\n";
  const std::string fresh = path + ".new";
  unlink(fresh.c_str());
  const UniqueFd file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!file) throw failure("cannot write", fresh);
  give_to_owner_of_folder(file.get(), path);
  const ssize_t written = ::write(file.get(), content.data(), content.size());
  if (written != static_cast<ssize_t>(content.size()) || fsync(file.get()) != 0 ||
      rename(fresh.c_str(), path.c_str()) != 0) {
    throw failure("cannot write", path);
  }
}

std::string hash_of(const std::string& password) {
  constexpr unsigned long kUsualCost = 0;
  const char* const setting = crypt_gensalt("$y$", kUsualCost, nullptr, 0);
  std::string hash = setting == nullptr ? "" : crypted(password, setting);
  if (hash.empty()) throw Failure("this system has no yescrypt; expected libcrypt 4.3 or later");
  return hash;
}

}  // namespace nimbus::web
