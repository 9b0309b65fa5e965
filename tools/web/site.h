// What stands under which path, and who may have it.
#pragma once

#include <string>
#include <vector>

#include "tools/web/http.h"
#include "tools/web/hub.h"

namespace nimbus::web {

struct SiteOptions {
  std::vector<std::string> names = {};  ///< of this machine, beside addresses and localhost
};

class ConsoleSite final : public Site {
 public:
  ConsoleSite(Hub& hub, SiteOptions options) : hub_(hub), options_(std::move(options)) {}

  [[nodiscard]] Answer answer(const Request& request) override;

 private:
  [[nodiscard]] bool knows_host(std::string_view host) const;
  [[nodiscard]] Response respond(const Request& request);
  [[nodiscard]] Response page(const Request& request) const;
  [[nodiscard]] Answer open(const Request& request);

  Hub& hub_;
  SiteOptions options_;
};

/// The host of a Host header, without its port; empty when it is no such header.
[[nodiscard]] std::string host_of(std::string_view header);

/// Whether it is an address in figures.
[[nodiscard]] bool is_address(std::string_view host);

/// Whether a page of `origin` is one of `host` itself. No origin is none of a browser's pages.
[[nodiscard]] bool same_origin(const Request& request);

}  // namespace nimbus::web
