// Tables that give the words of a protocol their values.
#pragma once

#include <algorithm>
#include <string_view>

namespace nimbus {

/// A row of a word table.
template <typename Value>
struct Word {
  std::string_view word;
  Value value;
};

/// The value of exactly that word, or null. The table is any range of Word.
template <typename Table>
[[nodiscard]] constexpr auto find_word(const Table& table, std::string_view word) noexcept
    -> decltype(&std::begin(table)->value) {
  const auto found = std::find_if(std::begin(table), std::end(table),
                                  [word](const auto& row) { return row.word == word; });
  return found == std::end(table) ? nullptr : &found->value;
}

}  // namespace nimbus
