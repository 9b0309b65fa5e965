// The viewer link of a server: never ends, never waits, outlives the service.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string_view>

#include "tools/common/udp_socket.h"
#include "tools/ctl/viewer_link.h"
#include "tools/web/bytes.h"

namespace nimbus::web {

class Link {
 public:
  /// Throws Failure when the host is not known.
  Link(const std::string& host, std::uint16_t port);
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link();

  using Handler = std::function<void(const ctl::Frame&, Time)>;

  /// Hands on every frame that has come.
  void receive(const Handler& handler);

  /// Keeps the registration: to be called at least once a second.
  void keep_registered();

  /// Whether the service has been heard lately.
  [[nodiscard]] bool heard(Time now) const;

  /// What goes to the service. False when its host has refused an earlier datagram.
  bool command(std::string_view text);
  bool speed(const std::array<std::int16_t, 3>& pan_tilt_roll);

  [[nodiscard]] int fd() const { return socket_.fd(); }

 private:
  bool send(Bytes payload);

  tools::UdpSocket socket_;
  Buffer buffer_;
  std::optional<Time> heard_;
};

}  // namespace nimbus::web
