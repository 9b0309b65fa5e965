// Small JSON objects whose members are texts or numbers.
#pragma once

#include <cjson/cJSON.h>

#include <memory>

namespace nimbus {

/// A parsed JSON object. A text that is not JSON, or no object, has no members. Members are found
/// in capitals or not; of several with one name the first counts. The texts live as long as this.
class JsonObject {
 public:
  explicit JsonObject(const char* text) noexcept : json_(cJSON_Parse(text)) {}

  /// The text of a member, or null when it is missing or no text.
  [[nodiscard]] const char* text(const char* name) const noexcept {
    return cJSON_GetStringValue(cJSON_GetObjectItem(json_.get(), name));
  }
  /// The text of a member, empty when it is missing or no text.
  [[nodiscard]] const char* text_or_empty(const char* name) const noexcept {
    const char* const found = text(name);
    return found == nullptr ? "" : found;
  }
  /// The number of a member, cut to an integer and to 32 bits, or null when it is missing or no
  /// number.
  [[nodiscard]] const int* integer(const char* name) const noexcept {
    const cJSON* const item = cJSON_GetObjectItem(json_.get(), name);
    return cJSON_IsNumber(item) != 0 ? &item->valueint : nullptr;
  }

 private:
  struct Delete {
    void operator()(cJSON* json) const noexcept { cJSON_Delete(json); }
  };
  std::unique_ptr<cJSON, Delete> json_;
};

}  // namespace nimbus
