#include "tools/web/tables.h"

#include "tools/ctl/commands.h"
#include "tools/ctl/settings.h"
#include "tools/web/json_text.h"

namespace nimbus::web {
namespace {

/// Joins members or elements.
void append_part(std::string& out, const std::string& part) {
  if (out.back() != '[' && out.back() != '{') out += ',';
  out += part;
}

std::string member(std::string_view name, const std::string& json) {
  return quoted(name) + ":" + json;
}

std::string limit(double number) { return json_text(number); }

std::string shape_members(const ctl::Accepts& accepts) {
  const ctl::Shape shape = accepts.shape();
  std::string out = member("kind", quoted(shape.kind));
  if (!shape.choices.empty()) {
    std::string list = "[";
    for (const std::string& choice : shape.choices) append_part(list, quoted(choice));
    out += "," + member("choices", list + "]");
  }
  if (shape.least) out += "," + member("least", limit(*shape.least));
  if (shape.most) out += "," + member("most", limit(*shape.most));
  return out;
}

std::string argument_json(const ctl::Argument& argument) {
  return "{" + member("name", quoted(argument.name)) + "," +
         member("optional", json_text(argument.optional)) + "," + shape_members(*argument.accepts) +
         "}";
}

template <typename Arguments>
std::string arguments_json(const Arguments& arguments) {
  std::string list = "[";
  for (const ctl::Argument& argument : arguments) {
    if (argument.name.empty()) break;
    append_part(list, argument_json(argument));
  }
  return list + "]";
}

std::string commands_json() {
  std::string list = "[";
  for (const ctl::Command& command : ctl::all_commands()) {
    append_part(list, "{" + member("words", quoted(command.words)) + "," +
                          member("help", quoted(command.help)) + "," +
                          member("asks", json_text(command.asks == ctl::Asks::yes)) + "," +
                          member("example", quoted(command.example)) + "," +
                          member("arguments", arguments_json(command.arguments)) + "}");
  }
  return list + "]";
}

std::string settings_json() {
  std::string list = "[";
  for (const ctl::Setting& setting : ctl::all_settings()) {
    append_part(list, "{" + member("name", quoted(setting.name)) + "," +
                          member("help", quoted(setting.help)) + "," +
                          member("stored", json_text(setting.stored)) + "," +
                          member("arguments", arguments_json(setting.values)) + "}");
  }
  return list + "]";
}

std::string wifi_json() {
  std::string list = "[";
  for (const ctl::WifiValue& value : ctl::wifi_values()) {
    append_part(
        list, "{" + member("name", quoted(value.name)) + "," + shape_members(*value.accepts) + "}");
  }
  return list + "]";
}

}  // namespace

const std::string& tables_json() {
  static const std::string text = member("commands", commands_json()) + "," +
                                  member("settings", settings_json()) + "," +
                                  member("wifi", wifi_json());
  return text;
}

}  // namespace nimbus::web
