// Short texts that threads and sibling processes share without locks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "base/shared.h"

namespace nimbus {

namespace detail {

/// Copies up to the first NUL, or to the end of either span.
inline std::string_view copy_text(std::span<const Shared<char>> chars,
                                  std::span<char> out) noexcept {
  std::size_t length = 0;
  while (length < std::min(chars.size(), out.size())) {
    const char c = chars[length];
    if (c == '\0') break;
    out[length++] = c;
  }
  return {out.data(), length};
}

}  // namespace detail

/// A private copy of a SharedText<N>: NUL-terminated, at most N - 1 characters.
template <std::size_t N>
class TextCopy {
 public:
  [[nodiscard]] const char* c_str() const noexcept { return chars_.data(); }
  [[nodiscard]] std::string_view view() const noexcept { return {chars_.data()}; }
  [[nodiscard]] char* data() noexcept { return chars_.data(); }

 private:
  std::array<char, N> chars_{};
};

/// The operations of a shared text without its size in the type, for tables over texts of several
/// sizes. A view: it must not outlive the SharedText that it was made from. Any thread.
class SharedTextRef {
 public:
  SharedTextRef(Shared<char>* chars, std::size_t capacity) noexcept
      : chars_(chars), capacity_(capacity) {}

  /// Copies `text` up to its first NUL, cut to the field's size less one, with its NUL; the bytes
  /// behind that NUL stay as they were. The NUL is stored first, so that the field holds one at
  /// every moment of the rewriting.
  void assign(std::string_view text) const noexcept {
    text = text.substr(0, std::min(text.find('\0'), capacity_ - 1));
    chars_[text.size()] = '\0';
    for (std::size_t i = 0; i < text.size(); ++i) chars_[i] = text[i];
  }

  /// Copies the text into `out`, cut to its size, whether or not the field holds a NUL; adds none.
  /// Returns what was copied.
  std::string_view copy_to(std::span<char> out) const noexcept {
    return detail::copy_text({chars_, capacity_ - 1}, out);
  }

  /// Empties the text by its first byte; the rest stays as it was.
  void clear() const noexcept { chars_[0] = '\0'; }

  [[nodiscard]] bool empty() const noexcept { return chars_[0] == '\0'; }

 private:
  Shared<char>* chars_;
  std::size_t capacity_;
};

/// A NUL-terminated text in a field of N bytes that other threads or processes may read or rewrite
/// at any moment. A reader may see a mix of the old and the new text, never more than N - 1
/// characters. Any thread.
template <std::size_t N>
class SharedText {
 public:
  static constexpr std::size_t kCapacity = N;

  void assign(std::string_view text) noexcept { ref().assign(text); }
  void clear() noexcept { ref().clear(); }
  [[nodiscard]] bool empty() const noexcept { return chars_[0] == '\0'; }

  /// Copies the text out, bounded whether or not the field holds a NUL.
  [[nodiscard]] TextCopy<N> copy() const noexcept {
    TextCopy<N> out;
    detail::copy_text(chars_, {out.data(), N - 1});
    return out;
  }

  [[nodiscard]] SharedTextRef ref() noexcept { return {chars_.data(), N}; }

 private:
  std::array<Shared<char>, N> chars_;
};

}  // namespace nimbus
