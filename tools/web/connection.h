// One connection of a browser: HTTP, and then perhaps a WebSocket.
#pragma once

#include <memory>
#include <string>

#include "tools/web/bytes.h"
#include "tools/web/http.h"

namespace nimbus::web {

/// A connection keeps itself until its end. The event loop's thread.
class Connection {
 public:
  Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  virtual ~Connection() = default;

  virtual void start() = 0;

  /// Ends the connection if it has waited too long for the other side. Once a second.
  virtual void check(Time now) = 0;

  /// Ends it.
  virtual void close() = 0;
};

/// What a connection must know of where it belongs.
struct ConnectionContext {
  Site& site;
  std::shared_ptr<const std::string> place;  ///< the address of the other side; given back with it
};

}  // namespace nimbus::web
