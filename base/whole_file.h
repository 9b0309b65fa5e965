// Files that are replaced whole or not at all, whenever the board loses its power.
//
// The new content is written beside the file, brought to the disk, and renamed; then the folder is
// brought to the disk. What cannot be replaced that way (a device, a file that is a mount point, a
// folder in which nothing can be made) is rewritten in place.
#pragma once

#include <cstdint>
#include <string_view>

namespace nimbus {

enum class Replaced : std::uint8_t {
  whole,    ///< the new content is there, and on the disk
  failed,   ///< no room, or an error of the disk: the former content stays
  torn,     ///< the same in a file that can only be rewritten in place: what is left is anything
  refused,  ///< it cannot be opened for writing, and nothing was done
};

/// Replaces the content of a file, or makes it. A link stays one: what it leads to is replaced. The
/// file keeps its mode, and its owner if this process may give files away. Any thread; one at a
/// time for each file.
[[nodiscard]] Replaced replace_file(const char* path, std::string_view content) noexcept;

/// Replaces the file that is named like `path` with `suffix` behind it, where a link leads to, by a
/// copy. True also when there is nothing to copy: no file, or an empty one. Any thread; one at a
/// time for each file.
[[nodiscard]] bool keep_copy(const char* path, std::string_view suffix) noexcept;

/// Whether there is such a copy: a file with something in it. Any thread.
[[nodiscard]] bool has_copy(const char* path, std::string_view suffix) noexcept;

/// Whether there is such a copy, and it holds what the file does. Any thread.
[[nodiscard]] bool copy_agrees(const char* path, std::string_view suffix) noexcept;

/// Whether a file can be read and holds exactly that. Any thread.
[[nodiscard]] bool file_holds(const char* path, std::string_view content) noexcept;

}  // namespace nimbus
