// The commands of viewers in words for people. One table says everything about each: the words, the
// values, the JSON text that is made of them. Help, completion and tests follow it.
#pragma once

#include <array>
#include <chrono>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/ctl/accepts.h"

namespace nimbus::ctl {

/// A value of a command: its name for people, the member of the JSON text that it becomes, and what
/// it may be.
struct Argument {
  std::string_view name;
  std::string_view member;
  const Accepts* accepts = nullptr;
  bool optional = false;
};

/// Of an argument that may be left out.
inline constexpr bool kOptional = true;

/// A member that is the same in every such command.
struct FixedMember {
  std::string_view name;
  std::string_view text;
};

/// Whether a person must say twice that it is meant.
enum class Asks : bool { no, yes };

struct Command {
  std::string_view words;  ///< with blanks between
  std::string_view help;
  std::array<FixedMember, 3> fixed;   ///< up to the first without a name
  std::array<Argument, 4> arguments;  ///< up to the first without a name
  std::string_view example;           ///< the values of an example
  std::chrono::milliseconds busy{0};  ///< how long the service takes no other command
  Asks asks = Asks::no;
};

/// Every command that has a form for people.
[[nodiscard]] std::span<const Command> all_commands();

/// The words of a text with blanks between them.
[[nodiscard]] std::vector<std::string_view> words_of(std::string_view text);

/// The names of values as usage has them, a blank before each: " PAN TILT [ROLL]".
[[nodiscard]] std::string names_of(std::span<const Argument> arguments);

/// The first word of a command.
[[nodiscard]] std::string_view first_word(const Command& command);

/// A command as a person types it, with the names of its values.
[[nodiscard]] std::string usage(const Command& command);

/// The command that these arguments begin with. Throws Failure when there is none.
[[nodiscard]] const Command& find_command(std::span<const std::string> arguments);

/// The JSON text of a command typed as `arguments`. `force` takes values as they are. Throws
/// Failure when a value is missing, is too many, or is not accepted.
[[nodiscard]] std::string json_for(const Command& command, std::span<const std::string> arguments,
                                   bool force);

/// What a value becomes. Throws Failure that says what `who` expects instead.
[[nodiscard]] std::string converted(std::string_view who, const Argument& argument,
                                    std::string_view text, bool force);

}  // namespace nimbus::ctl
