// The board's tools, as the tests of what runs them want them. The sandbox keeps stand-ins on PATH
// that record their calls.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/unit/support.h"

namespace nimbus::test {

/// The stand-ins, without answers and calls at first.
class BoardTools {
 public:
  BoardTools() { forget(); }
  BoardTools(const BoardTools&) = delete;
  BoardTools& operator=(const BoardTools&) = delete;
  ~BoardTools() { forget(); }

  /// Has a tool print `output` from now on, and end with that status.
  void print(const std::string& tool, std::string_view output, int status = 0) const {
    write_file(folder_ / (tool + ".out"), output);
    answer(tool, "cat \"$NIMBUS_STANDINS/" + tool + ".out\"; exit " + std::to_string(status));
  }

  /// Has a tool run that shell script from now on.
  void answer(const std::string& tool, const std::string& script) const {
    write_file(folder_ / tool, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(folder_ / tool, std::filesystem::perms::owner_all);
  }

  /// Puts the stand-in for a tool there that is not found on PATH.
  static void install(const std::filesystem::path& file) {
    const std::string path = std::getenv("PATH");
    std::filesystem::create_directories(file.parent_path());
    std::filesystem::remove(file);
    std::filesystem::create_symlink(
        std::filesystem::path(path.substr(0, path.find(':'))) / "board-tool", file);
  }

  /// The calls since the last time: the tool and its arguments, with blanks between them.
  std::vector<std::string> calls() const {
    std::istringstream lines(read_file(folder_ / "calls"));
    std::filesystem::remove(folder_ / "calls");
    std::vector<std::string> calls;
    for (std::string line; std::getline(lines, line);) {
      for (char& c : line) c = c == '\t' ? ' ' : c;
      calls.push_back(line);
    }
    return calls;
  }

 private:
  void forget() const {
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      std::filesystem::remove(entry);
    }
  }

  std::filesystem::path folder_ = std::getenv("NIMBUS_STANDINS");
};

/// For its lifetime the process gets no further descriptor, and so starts no tool with a pipe.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const int lowest = dup(STDIN_FILENO);
    close(lowest);
    rlimit none = before_;
    none.rlim_cur = static_cast<rlim_t>(lowest);
    setrlimit(RLIMIT_NOFILE, &none);
  }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_;
};

}  // namespace nimbus::test
