// The two kinds of WebSocket: pictures, and control.
#pragma once

#include <deque>
#include <string>

#include "tools/web/hub.h"

namespace nimbus::web {

/// Pictures to a browser.
class VideoPeer final : public Peer {
 public:
  VideoPeer(Hub& hub, Visitor visitor, Form form);
  VideoPeer(const VideoPeer&) = delete;
  VideoPeer& operator=(const VideoPeer&) = delete;
  ~VideoPeer() override;

  std::optional<Message> next() override { return reader_.next(); }
  std::optional<std::uint16_t> received(std::string_view text) override;
  std::optional<std::uint16_t> over() override { return visitor_.over(); }

  void tell(const SharedEpoch& epoch);
  void tell(const SharedPicture& picture);
  void tell(Waiting reason);

  [[nodiscard]] const Reader& reader() const { return reader_; }

 private:
  Hub& hub_;
  Visitor visitor_;
  Reader reader_;
};

/// The state to a browser, and what it orders.
class ControlPeer final : public Peer {
 public:
  ControlPeer(Hub& hub, Visitor visitor, std::string name);
  ControlPeer(const ControlPeer&) = delete;
  ControlPeer& operator=(const ControlPeer&) = delete;
  ~ControlPeer() override;

  std::optional<Message> next() override;
  std::optional<std::uint16_t> received(std::string_view text) override;
  std::optional<std::uint16_t> over() override { return visitor_.over(); }

  /// A text for this browser. Dropped when too many wait.
  void say(std::string text);
  /// A change of the state. A browser that does not keep up gets the whole state later.
  void say_changes(const std::string& message);

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] const Visitor& visitor() const { return visitor_; }

 private:
  friend struct ControlRows;
  [[nodiscard]] bool drives() const;
  void say_notice(const std::string& text);
  void say_result(const cJSON* message, bool ok, const std::string& text);
  void say_greeting();
  void on_ping(const cJSON* message, Time now);
  void on_take(const cJSON* message, Time now);
  void on_release(const cJSON* message, Time now);
  void on_heartbeat(const cJSON* message, Time now);
  void on_grant(const cJSON* message, Time now);
  void on_deny(const cJSON* message, Time now);
  void on_speed(const cJSON* message, Time now);
  void on_order(const cJSON* message, Time now);

  Hub& hub_;
  Visitor visitor_;
  std::string name_;
  std::deque<std::string> texts_;
  std::size_t bytes_ = 0;
  bool needs_whole_ = true;
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);  // for answers that come later
};

}  // namespace nimbus::web
