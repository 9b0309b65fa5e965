#include "tools/web/state.h"

#include <array>

#include "tools/web/json_text.h"

namespace nimbus::web {
namespace {

constexpr std::array<std::string_view, 15> kGroups{
    "service", "camera",    "video",    "recording", "exposure", "gimbal",   "lens",     "board",
    "rc",      "histogram", "tracking", "viewers",   "driving",  "settings", "wifi_scan"};

void append_member(std::string& out, std::string_view name, std::string_view json) {
  if (out.back() != '{') out += ',';
  out += quoted(name);
  out += ':';
  out += json;
}

}  // namespace

State::State() {
  for (const std::string_view group : kGroups) set(group, "at", "null");
}

void State::set(std::string_view group, std::string_view member, std::string json) {
  auto& members = groups_[std::string(group)];
  const auto [found, is_new] = members.try_emplace(std::string(member));
  if (!is_new && found->second.json == json) return;
  found->second = {std::move(json), true};
  changed_ = true;
}

void State::reported(std::string_view group, std::uint64_t now) {
  set(group, "at", std::to_string(now));
}

std::string State::get(std::string_view group, std::string_view member) const {
  const auto members = groups_.find(group);
  if (members == groups_.end()) return {};
  const auto found = members->second.find(member);
  return found == members->second.end() ? std::string() : found->second.json;
}

std::string State::whole() const {
  std::string out = "{";
  for (const auto& [name, members] : groups_) {
    std::string group = "{";
    for (const auto& [member, value] : members) append_member(group, member, value.json);
    append_member(out, name, group + "}");
  }
  return out + "}";
}

std::string State::take_changes() {
  if (!changed_) return {};
  changed_ = false;
  std::string out = "{";
  for (auto& [name, members] : groups_) {
    std::string group = "{";
    for (auto& [member, value] : members) {
      if (value.changed) append_member(group, member, value.json);
      value.changed = false;
    }
    if (group.size() > 1) append_member(out, name, group + "}");
  }
  return out + "}";
}

}  // namespace nimbus::web
