#pragma once

#include <string>

namespace nimbus::tools {

/// How far a long work has come, on standard error: one line that is written over and over again on
/// a terminal, one line after the other elsewhere.
class ProgressLine {
 public:
  ProgressLine();

  /// Seconds between two that somebody may want to see.
  [[nodiscard]] double interval() const;

  /// Shows the text on a terminal only.
  void glance(const std::string& text) const {
    if (terminal_) show(text, false);
  }
  /// Shows the text. The last one stays.
  void show(const std::string& text, bool last) const;

 private:
  bool terminal_;
};

}  // namespace nimbus::tools
