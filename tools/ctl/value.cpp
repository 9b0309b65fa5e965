#include "tools/ctl/value.h"

#include <algorithm>
#include <cmath>

#include "tools/common/text.h"
#include "tools/ctl/json.h"

namespace nimbus::ctl {
namespace {

struct ToText {
  std::string operator()(bool flag) const { return flag ? "yes" : "no"; }
  std::string operator()(std::int64_t number) const { return std::to_string(number); }
  std::string operator()(double number) const { return tools::format_text("%.10g", number); }
  std::string operator()(const std::string& text) const { return text; }
  std::string operator()(const std::vector<int>& numbers) const {
    std::string text;
    for (const int number : numbers) {
      if (!text.empty()) text += ' ';
      text += std::to_string(number);
    }
    return text;
  }
};

struct ToJson {
  cJSON* operator()(bool flag) const { return cJSON_CreateBool(flag ? 1 : 0); }
  cJSON* operator()(std::int64_t number) const {
    return cJSON_CreateNumber(static_cast<double>(number));
  }
  cJSON* operator()(double number) const { return cJSON_CreateNumber(number); }
  cJSON* operator()(const std::string& text) const { return cJSON_CreateString(text.c_str()); }
  cJSON* operator()(const std::vector<int>& numbers) const {
    return cJSON_CreateIntArray(numbers.data(), static_cast<int>(numbers.size()));
  }
};

}  // namespace

std::string text_of(const Value& value) { return std::visit(ToText(), value); }

std::string text_of(const Field& field) {
  std::string text(field.name);
  std::replace(text.begin(), text.end(), '_', ' ');
  return text.append(" ").append(text_of(field.value)).append(field.unit);
}

std::string text_of(const Fields& fields) {
  std::string text;
  for (const Field& field : fields) {
    if (!text.empty()) text += ", ";
    text += text_of(field);
  }
  return text;
}

void add_value(cJSON* object, std::string_view name, const Value& value) {
  cJSON_AddItemToObject(object, std::string(name).c_str(), std::visit(ToJson(), value));
}

double rounded(double number) {
  constexpr double kUnit = 1e6;
  return std::abs(number) < kUnit ? std::round(number * kUnit) / kUnit : number;
}

}  // namespace nimbus::ctl
