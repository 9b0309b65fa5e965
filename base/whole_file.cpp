#include "base/whole_file.h"

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "base/text_builder.h"
#include "base/unique_fd.h"

namespace nimbus {
namespace {

using Path = std::array<char, PATH_MAX>;
using Piece = std::array<char, 4096>;

constexpr int kMostLinks = 8;
constexpr mode_t kModeOfNewFiles = 0666;  // less the umask
constexpr mode_t kPrivateMode = 0600;

bool join(std::string_view first, std::string_view second, Path& path) {
  TextBuilder builder(path);
  builder.add(first);
  if (builder.room() < second.size()) return false;
  builder.add(second);
  return true;
}

/// With its slash at the end; empty for the working directory.
std::string_view folder_of(std::string_view path) { return path.substr(0, path.rfind('/') + 1); }

/// The file that a path leads to, also when there is none yet. False when the links do not end.
bool follow_links(std::string_view path, Path& file) {
  if (!join(path, "", file)) return false;
  for (int i = 0; i < kMostLinks; ++i) {
    Path link;
    const ssize_t length = readlink(file.data(), link.data(), link.size());
    if (length <= 0) return true;  // no link
    const std::string_view to(link.data(), static_cast<std::size_t>(length));
    const Path from = file;
    if (!join(to[0] == '/' ? "" : folder_of(from.data()), to, file)) return false;
  }
  return false;
}

bool write_all(int fd, std::string_view content) {
  while (!content.empty()) {
    const ssize_t written = write(fd, content.data(), content.size());
    if (written <= 0) return false;
    content.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

/// Reads the next piece of a file. Empty at its end, and when it cannot be read.
std::string_view next_piece(int fd, Piece& piece) {
  const ssize_t length = read(fd, piece.data(), piece.size());
  return {piece.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

/// A rename is on the disk when its folder is.
void sync_folder_of(const Path& file) {
  Path folder;
  const std::string_view name = folder_of(file.data());
  if (!join(name.empty() ? "." : name, "", folder)) return;
  const UniqueFd fd(open(folder.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) fsync(fd.get());
}

/// A file that is made beside another, to take its place; it is gone if it does not.
class FreshFile {
 public:
  /// `former` is what the other one is now, null when there is none. See operator bool and errno.
  FreshFile(const Path& file, const struct stat* former) noexcept : file_(file) {
    if (!join(file.data(), ".new", path_)) return;
    unlink(path_.data());  // of a save that was cut short
    fd_ = UniqueFd(open(path_.data(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                        former == nullptr ? kModeOfNewFiles : kPrivateMode));
    if (fd_ && former != nullptr) take_over(*former);
  }
  FreshFile(const FreshFile&) = delete;
  FreshFile& operator=(const FreshFile&) = delete;
  ~FreshFile() {
    if (fd_ && !in_place_) unlink(path_.data());
  }

  explicit operator bool() const noexcept { return static_cast<bool>(fd_); }
  [[nodiscard]] bool add(std::string_view content) const noexcept {
    return write_all(fd_.get(), content);
  }
  /// A rename that reached the disk before the content would leave an empty file.
  [[nodiscard]] bool sync() const noexcept { return fsync(fd_.get()) == 0; }
  [[nodiscard]] bool take_its_place() noexcept {
    {
      // On FAT, where the content begins stands in the folder's entry, and a cut may leave what was
      // freed on the disk without the entry that leads elsewhere: nothing is freed as long as
      // somebody has it open.
      const UniqueFd former(open(file_.data(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
      in_place_ = std::rename(path_.data(), file_.data()) == 0;
      if (!in_place_) return false;
      // The name of before goes first: of two entries that lead to the same content, a check
      // empties one. The other entry is brought there with the file.
      sync_folder_of(file_);
      fsync(fd_.get());
    }
    sync_folder_of(file_);
    return true;
  }

 private:
  /// A FAT partition has owners and modes from its mount, and may refuse.
  void take_over(const struct stat& former) const noexcept {
    [[maybe_unused]] const int given = fchown(fd_.get(), former.st_uid, former.st_gid);
    fchmod(fd_.get(), former.st_mode);
  }

  Path file_;
  Path path_;
  UniqueFd fd_;
  bool in_place_ = false;
};

Replaced rewrite(const char* path, std::string_view content) {
  const UniqueFd fd(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kModeOfNewFiles));
  if (!fd) return Replaced::refused;
  const bool whole = write_all(fd.get(), content);
  fsync(fd.get());
  return whole ? Replaced::whole : Replaced::torn;
}

bool can_be_written(const Path& file) {
  return static_cast<bool>(UniqueFd(open(file.data(), O_WRONLY | O_CLOEXEC)));
}

}  // namespace

Replaced replace_file(const char* path, std::string_view content) noexcept {
  Path file;
  struct stat former {};
  if (!follow_links(path, file)) return rewrite(path, content);
  const bool exists = stat(file.data(), &former) == 0;
  if (exists && !S_ISREG(former.st_mode)) return rewrite(path, content);
  if (exists && !can_be_written(file)) return Replaced::refused;
  FreshFile fresh(file, exists ? &former : nullptr);
  if (!fresh) return exists && errno == ENOSPC ? Replaced::failed : rewrite(path, content);
  if (!fresh.add(content) || !fresh.sync()) return Replaced::failed;
  return fresh.take_its_place() ? Replaced::whole : rewrite(path, content);
}

bool keep_copy(const char* path, std::string_view suffix) noexcept {
  Path file;
  Path copy;
  struct stat status {};
  if (!follow_links(path, file)) return true;
  if (stat(file.data(), &status) != 0) return errno == ENOENT;
  if (!S_ISREG(status.st_mode) || status.st_size == 0) return true;
  const UniqueFd from(open(file.data(), O_RDONLY | O_CLOEXEC));
  if (!from || !join(file.data(), suffix, copy)) return false;
  FreshFile fresh(copy, &status);
  if (!fresh) return false;
  off_t length = 0;
  Piece buffer;
  for (auto piece = next_piece(from.get(), buffer); !piece.empty();
       piece = next_piece(from.get(), buffer)) {
    if (!fresh.add(piece)) return false;
    length += static_cast<off_t>(piece.size());
  }
  return length == status.st_size && fresh.sync() && fresh.take_its_place();
}

bool has_copy(const char* path, std::string_view suffix) noexcept {
  Path file;
  Path copy;
  struct stat status {};
  return follow_links(path, file) && join(file.data(), suffix, copy) &&
         stat(copy.data(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0;
}

bool copy_agrees(const char* path, std::string_view suffix) noexcept {
  Path file;
  Path copy;
  if (!follow_links(path, file) || !join(file.data(), suffix, copy)) return false;
  const UniqueFd one(open(file.data(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  const UniqueFd other(open(copy.data(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!one || !other) return false;
  Piece of_one;
  Piece of_other;
  for (;;) {
    const std::string_view piece = next_piece(one.get(), of_one);
    if (piece != next_piece(other.get(), of_other)) return false;
    if (piece.empty()) return true;
  }
}

bool file_holds(const char* path, std::string_view content) noexcept {
  // Without waiting: whatever may stand there, a pipe has nobody at its other end.
  const UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd) return false;
  Piece buffer;
  for (auto piece = next_piece(fd.get(), buffer); !piece.empty();
       piece = next_piece(fd.get(), buffer)) {
    if (!content.starts_with(piece)) return false;
    content.remove_prefix(piece.size());
  }
  return content.empty();
}

}  // namespace nimbus
