// The page's files, which are part of the program. CMake makes their table.
#pragma once

#include <span>
#include <string_view>

namespace nimbus::web {

struct File {
  std::string_view name;
  std::string_view content;
};

[[nodiscard]] std::span<const File> page_files();

}  // namespace nimbus::web
