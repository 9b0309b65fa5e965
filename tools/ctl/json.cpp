#include "tools/ctl/json.h"

namespace nimbus::ctl {

Json parse_object(std::string_view text) {
  const std::string whole(text);
  Json json(cJSON_ParseWithOpts(whole.c_str(), nullptr, 1));
  return cJSON_IsObject(json.get()) != 0 ? std::move(json) : nullptr;
}

Json empty_object() { return Json(cJSON_CreateObject()); }

std::string line_of(const cJSON* json) {
  const std::unique_ptr<char, decltype(&cJSON_free)> text(cJSON_PrintUnformatted(json), cJSON_free);
  return text == nullptr ? std::string() : text.get();
}

void add_text(cJSON* object, std::string_view name, std::string_view text) {
  cJSON_AddStringToObject(object, std::string(name).c_str(), std::string(text).c_str());
}

const cJSON* member(const cJSON* object, const char* name) {
  return cJSON_GetObjectItemCaseSensitive(object, name);
}

std::string member_text(const cJSON* object, std::string_view name) {
  const cJSON* const item = member(object, std::string(name).c_str());
  if (item == nullptr) return {};
  return cJSON_IsString(item) != 0 ? item->valuestring : line_of(item);
}

}  // namespace nimbus::ctl
