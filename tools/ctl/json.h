// JSON trees with owners.
#pragma once

#include <cjson/cJSON.h>

#include <memory>
#include <string>
#include <string_view>

namespace nimbus::ctl {

struct DeleteJson {
  void operator()(cJSON* json) const noexcept { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

/// The object in the text; null when it holds none, or anything behind it.
[[nodiscard]] Json parse_object(std::string_view text);

[[nodiscard]] Json empty_object();

/// The tree on one line.
[[nodiscard]] std::string line_of(const cJSON* json);

void add_text(cJSON* object, std::string_view name, std::string_view text);

/// Null when missing.
[[nodiscard]] const cJSON* member(const cJSON* object, const char* name);

/// A member's text: of a string its characters, of another value its JSON; empty when missing.
[[nodiscard]] std::string member_text(const cJSON* object, std::string_view name);

}  // namespace nimbus::ctl
