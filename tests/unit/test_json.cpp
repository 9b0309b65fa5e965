#include "base/json.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

namespace nimbus {
namespace {

std::optional<std::string> text_of(const char* json, const char* name) {
  const JsonObject object(json);
  const char* const text = object.text(name);
  EXPECT_STREQ(object.text_or_empty(name), text == nullptr ? "" : text);
  if (text == nullptr) return {};
  return text;
}

TEST(Json, TextsOfMembers) {
  const struct {
    const char* json;
    std::optional<std::string> text;  ///< of the member "name"
  } kRows[] = {
      {R"({"name":"value"})", "value"},
      {R"( {"other":1, "name" : "value" } )", "value"},
      {R"({"name":""})", ""},
      {R"({"NAME":"value"})", "value"},
      {R"({"nAmE":"first","name":"second"})", "first"},
      {R"({"name":"a\"b\\c\/d\n\t\u00e9"})", "a\"b\\c/d\n\t\u00e9"},
      {R"({"name":"a\u0000b"})", "a"},
      {R"({"name":"value"} behind)", "value"},
      {R"({"names":"value","nam":"e","":"x"})", {}},
      {R"({"x":{"name":"value"}})", {}},
      {R"({"name":5})", {}},
      {R"({"name":true})", {}},
      {R"({"name":null})", {}},
      {R"({"name":["value"]})", {}},
      {R"({"name":5,"name":"value"})", {}},
      {"{}", {}},
      {"[\"name\"]", {}},
      {"\"name\"", {}},
      {"7", {}},
      {"null", {}},
      {"", {}},
      {"{", {}},
      {R"({"name":"value")", {}},
      {R"({name:"value"})", {}},
      {"name", {}},
  };
  for (const auto& row : kRows) EXPECT_EQ(text_of(row.json, "name"), row.text) << row.json;
}

TEST(Json, NumbersOfMembers) {
  using Limits = std::numeric_limits<int>;
  const struct {
    const char* value;
    std::optional<int> number;
  } kRows[] = {
      {"0", 0},
      {"-12", -12},
      {"5.9", 5},
      {"-5.9", -5},
      {"1e3", 1000},
      {"2147483647", Limits::max()},
      {"2147483648", Limits::max()},
      {"1e300", Limits::max()},
      {"-2147483648", Limits::min()},
      {"-1e300", Limits::min()},
      {"\"5\"", {}},
      {"true", {}},
      {"null", {}},
      {"[5]", {}},
  };
  for (const auto& row : kRows) {
    const JsonObject object((std::string(R"({"Number":)") + row.value + "}").c_str());
    const int* const number = object.integer("number");
    EXPECT_EQ(number == nullptr ? std::nullopt : std::optional(*number), row.number) << row.value;
    EXPECT_EQ(object.integer("numbers"), nullptr);
  }
}

}  // namespace
}  // namespace nimbus
