// Which texts a value may have, and what becomes of them in a command.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/word_table.h"

namespace nimbus::ctl {

/// Which texts a value may have, for a program that offers them.
struct Shape {
  std::string_view kind = "text";  ///< "choice", "switch", "integer", "number", "text" or "words"
  std::vector<std::string> choices = {};  ///< of a choice; of words with commas between
  std::optional<double> least = {};
  std::optional<double> most = {};  ///< of a text: bytes; of words: how many
};

/// Which texts a value may have, for the program that takes them.
struct Accepts {
  /// What the command carries for that text; nothing when the text is not accepted.
  std::optional<std::string> (*convert)(std::string_view text);
  /// What is accepted, for people: behind "expected".
  std::string (*expected)();
  Shape (*shape)();
};

/// The words of a table.
template <typename Table>
[[nodiscard]] Shape choice_of(const Table& table) {
  Shape shape{.kind = "choice"};
  for (const auto& row : table) shape.choices.emplace_back(row.word);
  return shape;
}

/// Appends a word to a list for people.
void append_word(std::string& list, std::string_view word);

/// The interfaces that have a code, by their names.
[[nodiscard]] std::string interface_names(std::string_view between);

/// Exactly the words of a table: any range of Word.
template <const auto& table>
inline constexpr Accepts kWordsOf{[](std::string_view text) -> std::optional<std::string> {
                                    if (find_word(table, text) == nullptr) return std::nullopt;
                                    return std::string(text);
                                  },
                                  [] {
                                    std::string list;
                                    for (const auto& row : table) append_word(list, row.word);
                                    return list;
                                  },
                                  [] { return choice_of(table); }};

/// The words of a table of Word<std::string_view>, each with what the command carries for it.
template <const auto& table>
inline constexpr Accepts kTranslated{[](std::string_view text) -> std::optional<std::string> {
                                       const std::string_view* const found = find_word(table, text);
                                       if (found == nullptr) return std::nullopt;
                                       return std::string(*found);
                                     },
                                     kWordsOf<table>.expected, kWordsOf<table>.shape};

/// The whole text as an integer: nothing when it is none, or anything stands around it.
[[nodiscard]] std::optional<std::int64_t> whole_integer(std::string_view text);

/// An integer within limits, which belong to it.
template <std::int64_t least, std::int64_t most>
inline constexpr Accepts kInteger{[](std::string_view text) -> std::optional<std::string> {
                                    const auto number = whole_integer(text);
                                    if (!number || *number < least || *number > most)
                                      return std::nullopt;
                                    return std::string(text);
                                  },
                                  [] {
                                    if (least == INT32_MIN && most == INT32_MAX)
                                      return std::string("an integer");
                                    return "an integer from " + std::to_string(least) + " to " +
                                           std::to_string(most);
                                  },
                                  [] {
                                    return Shape{.kind = "integer",
                                                 .least = static_cast<double>(least),
                                                 .most = static_cast<double>(most)};
                                  }};

inline constexpr Accepts kNumber = kInteger<INT32_MIN, INT32_MAX>;

/// A text of at most so many bytes, without a double quote, which the report could not show.
template <std::size_t longest>
inline constexpr Accepts kText{
    [](std::string_view text) -> std::optional<std::string> {
      if (text.size() > longest || text.find('"') != std::string_view::npos) return std::nullopt;
      return std::string(text);
    },
    [] { return "a text of at most " + std::to_string(longest) + " bytes without a quote"; },
    [] { return Shape{.most = longest}; }};

extern const Accepts kOnOff;          ///< yes or no in several words, as "1" or "0"
extern const Accepts kFraction;       ///< a real from 0 to 1
extern const Accepts kFNumber;        ///< a positive real that fits its field
extern const Accepts kEv;             ///< one of the camera's steps, in any spelling
extern const Accepts kShutter;        ///< "1/50" or "2s", one of the camera's times
extern const Accepts kColour;         ///< one of the camera's colour profiles
extern const Accepts kRcMap;          ///< function words with commas between
extern const Accepts kInterfaceName;  ///< "none" or an interface's name or code, as its code

}  // namespace nimbus::ctl
