// What stands under which path, and who may have it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/web/guests.h"
#include "tools/web/http.h"
#include "tools/web/hub.h"
#include "tools/web/passwords.h"
#include "tools/web/sessions.h"

namespace nimbus::web {

/// Finds out whose password it is, and tells, at once or later.
using Verify = std::function<void(const Passwords& passwords, std::string password,
                                  std::function<void(std::optional<Role>)> done)>;

struct SiteOptions {
  std::vector<std::string> names = {};  ///< of this machine, beside addresses and localhost
  Verify verify = [](const Passwords& passwords, const std::string& password, const auto& done) {
    done(passwords.role_of(password));
  };
};

class ConsoleSite final : public Site {
 public:
  ConsoleSite(Hub& hub, const Guests& guests, SiteOptions options);

  /// Who may come in. Nobody needs a password as long as none is set. Whoever came in by one that
  /// has changed is out.
  void use(Passwords passwords);

  [[nodiscard]] Answer answer(const Request& request) override;

 private:
  [[nodiscard]] bool knows_host(std::string_view header) const;
  [[nodiscard]] std::optional<Role> role_of(const Request& request, Time now);
  [[nodiscard]] Response respond(const Request& request, std::optional<Role> role, Time now);
  [[nodiscard]] Response get(const Request& request, bool allowed, Time now);
  [[nodiscard]] Response post(const Request& request, std::optional<Role> role, Time now);
  [[nodiscard]] static Response page(const Request& request, bool allowed);
  [[nodiscard]] bool may_try(const Request& request, Time now);
  [[nodiscard]] Response command(const Request& request, std::optional<Role> role, Time now);
  [[nodiscard]] Answer log_in(const Request& request, Time now);
  [[nodiscard]] Response logged_in(const Request& request, std::optional<Role> role);
  [[nodiscard]] Response log_out(const Request& request);
  [[nodiscard]] Answer open(const Request& request, std::optional<Role> role);

  Hub& hub_;
  const Guests& guests_;
  SiteOptions options_;
  Passwords passwords_;
  Sessions sessions_;
  Marks marks_;
  Tries strangers_;  // by address
  Tries known_;      // by mark
};

/// The host of a Host header, without its port; empty when it is no such header.
[[nodiscard]] std::string host_of(std::string_view header);

/// Whether it is an address in figures.
[[nodiscard]] bool is_address(std::string_view host);

/// Whether a page of `origin` is one of `host` itself. No origin is none of a browser's pages.
[[nodiscard]] bool same_origin(const Request& request);

}  // namespace nimbus::web
