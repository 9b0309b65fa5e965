// Named values, for people and for programs.
#pragma once

#include <cjson/cJSON.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace nimbus::ctl {

using Value = std::variant<bool, std::int64_t, double, std::string, std::vector<int>>;

struct Field {
  std::string_view name;  ///< in lower case, with underscores for blanks
  Value value;
  std::string_view unit = {};  ///< what stands behind the value for people
};

using Fields = std::vector<Field>;

/// A value for people: "yes", "no", a number, a text as it is, or numbers with blanks between.
[[nodiscard]] std::string text_of(const Value& value);

/// Its name, its value and its unit, for people.
[[nodiscard]] std::string text_of(const Field& field);

/// All of them on one line, for people.
[[nodiscard]] std::string text_of(const Fields& fields);

/// Adds the value to a JSON object.
void add_value(cJSON* object, std::string_view name, const Value& value);

/// The number without what lies behind the sixth decimal, which is an artefact of its encoding.
[[nodiscard]] double rounded(double number);

}  // namespace nimbus::ctl
