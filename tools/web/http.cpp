#include "tools/web/http.h"

#include <algorithm>

namespace nimbus::web {

std::string_view Request::path() const {
  return std::string_view(target).substr(0, target.find('?'));
}

std::string_view Request::parameter(std::string_view name) const {
  std::string_view query(target);
  query.remove_prefix(std::min(query.find('?'), query.size()));
  while (!query.empty()) {
    query.remove_prefix(1);
    const std::string_view part = query.substr(0, query.find('&'));
    const auto equals = std::min(part.find('='), part.size());
    if (part.substr(0, equals) == name) return part.substr(std::min(equals + 1, part.size()));
    query.remove_prefix(part.size());
  }
  return {};
}

}  // namespace nimbus::web
