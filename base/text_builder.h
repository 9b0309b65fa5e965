// Building a text in a buffer of fixed size.
#pragma once

#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace nimbus {

/// Appends to a caller's buffer, which always holds a NUL-terminated text. What does not fit is
/// dropped. The buffer must outlive the builder and have room for the NUL.
class TextBuilder {
 public:
  explicit TextBuilder(std::span<char> buffer) noexcept : buffer_(buffer) { buffer_[0] = '\0'; }

  TextBuilder& add(std::string_view text) noexcept {
    for (const char c : text.substr(0, room())) buffer_[length_++] = c;
    buffer_[length_] = '\0';
    return *this;
  }
  TextBuilder& add(std::int32_t number) noexcept {
    std::array<char, 11> digits;
    const auto* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return add({digits.data(), static_cast<std::size_t>(end - digits.data())});
  }

  /// How many more characters fit.
  [[nodiscard]] std::size_t room() const noexcept { return buffer_.size() - 1 - length_; }
  [[nodiscard]] std::string_view view() const noexcept { return {buffer_.data(), length_}; }
  [[nodiscard]] const char* c_str() const noexcept { return buffer_.data(); }

 private:
  std::span<char> buffer_;
  std::size_t length_ = 0;
};

}  // namespace nimbus
