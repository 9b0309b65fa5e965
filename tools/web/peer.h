// What stands behind a browser's WebSocket.
#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "tools/web/reader.h"

namespace nimbus::web {

class Peer {
 public:
  Peer() = default;
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  virtual ~Peer() = default;

  /// The next message for the browser; nothing when it has everything.
  [[nodiscard]] virtual std::optional<Message> next() = 0;

  /// Takes a text of the browser. False for what no page sends: it is then closed.
  virtual bool received(std::string_view text) = 0;

  /// Whom to tell that next() has something.
  void on_ready(std::function<void()> wake) { wake_ = std::move(wake); }

 protected:
  void wake() {
    if (wake_) wake_();
  }

 private:
  std::function<void()> wake_;
};

}  // namespace nimbus::web
