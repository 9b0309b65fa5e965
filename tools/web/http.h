// Requests and their answers, without a socket.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/web/peer.h"

namespace nimbus::web {

struct Request {
  std::string method;
  std::string target;  ///< path and query
  std::string host;
  std::string origin;  ///< empty when there is none
  std::string cookie;
  std::string content_type;
  std::string known_tag;  ///< of If-None-Match
  std::string body;
  std::string address;   ///< of the client
  bool secure = false;   ///< over TLS
  bool upgrade = false;  ///< to a WebSocket

  [[nodiscard]] std::string_view path() const;
  /// The value of a parameter of the query; empty when there is none.
  [[nodiscard]] std::string_view parameter(std::string_view name) const;
};

struct Response {
  unsigned status = 200;
  std::string_view type = "text/plain; charset=utf-8";
  std::string body = {};
  std::string_view fixed_body = {};  ///< sent instead of `body` when not empty; lives on
  std::vector<std::pair<std::string, std::string>> headers = {};

  [[nodiscard]] std::string_view content() const { return fixed_body.empty() ? body : fixed_body; }
};

/// Who is told an answer, once.
using Respond = std::function<void(Response)>;

/// Either an answer, or who talks from now on, or what gives an answer to whom it is told, at once
/// or later.
struct Answer {
  Response response = {};
  std::unique_ptr<Peer> peer = nullptr;
  std::function<void(Respond)> later = nullptr;
};

/// Who answers requests.
class Site {
 public:
  virtual ~Site() = default;
  [[nodiscard]] virtual Answer answer(const Request& request) = 0;
};

}  // namespace nimbus::web
