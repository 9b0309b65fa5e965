// What stands behind a browser's WebSocket.
#pragma once

#include <cstdint>
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

  // Codes with which a WebSocket is closed.
  static constexpr std::uint16_t kNoJson = 1007;
  static constexpr std::uint16_t kLogInAgain = 4001;

  /// Takes a text of the browser. A code for what no page sends: it is then closed.
  virtual std::optional<std::uint16_t> received(std::string_view text) = 0;

  /// A code when the browser may not stay. Asked once a second.
  [[nodiscard]] virtual std::optional<std::uint16_t> over() = 0;

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
