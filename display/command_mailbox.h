// The one-slot mailbox of commands in the display region.
//
// A writer may replace a text that has not been taken, and any process that maps the region may
// write one; nobody waits for anybody. What is promised: a reader that finds the mailbox full sees
// the whole text of its writer, as long as no second text arrives at that very moment; and whatever
// the field holds, never more than 511 characters are taken from it. The service's own two threads
// are promised more, see CommandHandover.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "base/shared.h"
#include "base/shared_text.h"

namespace nimbus {

/// 512 bytes of the display region: one pending command text, all zero when empty.
class CommandMailbox {
 public:
  static constexpr std::size_t kSize = 512;

  /// What the mailbox holds of a text: all up to its first NUL, at most 511 characters.
  [[nodiscard]] static std::string_view cut(std::string_view text) noexcept {
    return text.substr(0, std::min(text.find('\0'), kSize - 1));
  }

  /// Replaces the content by `text`, cut to what the mailbox holds. The first byte
  /// goes last, because it is what the reader polls. One thread of the service at a time.
  void post(std::string_view text) noexcept {
    text = cut(text);
    chars_[0] = '\0';  // from here on, nobody takes what is left of an earlier text
    clear();
    if (text.empty()) return;
    for (std::size_t i = 1; i < text.size(); ++i) chars_[i] = text[i];
    chars_[0].store_release(text[0]);
  }

  /// Whether a text is waiting. Any thread.
  [[nodiscard]] bool full() const noexcept { return chars_[0].load_acquire() != '\0'; }

  /// Copies the waiting text out and empties the mailbox. Empty when none is waiting. One thread of
  /// the service at a time.
  [[nodiscard]] TextCopy<kSize> take() noexcept {
    TextCopy<kSize> text;
    if (!full()) return text;
    for (std::size_t i = 0; i < kSize - 1; ++i) text.data()[i] = chars_[i];
    clear();
    return text;
  }

 private:
  /// The first byte goes last: a writer that waits for an empty mailbox may write from then on.
  void clear() noexcept {
    for (std::size_t i = 1; i < kSize; ++i) chars_[i] = '\0';
    chars_[0].store_release('\0');
  }

  std::array<Shared<char>, kSize> chars_;
};

static_assert(sizeof(CommandMailbox) == CommandMailbox::kSize);

}  // namespace nimbus
