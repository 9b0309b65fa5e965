// The middle of the web console: what comes from the service goes to every browser that wants it.
// Knows no sockets; the event loop calls it, on one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/ctl/json.h"
#include "tools/ctl/viewer_link.h"
#include "tools/web/command_queue.h"
#include "tools/web/helm.h"
#include "tools/web/lease.h"
#include "tools/web/peer.h"
#include "tools/web/rate.h"
#include "tools/web/reports.h"
#include "tools/web/rtp.h"
#include "tools/web/state.h"
#include "tools/web/stream.h"

namespace nimbus::web {

/// The way to the service.
struct ToService {
  std::function<bool(std::string_view)> command;
  std::function<bool(const std::array<std::int16_t, 3>&)> speed;
};

/// Who has opened a WebSocket.
struct Visitor {
  std::string address;
  bool operates = true;                ///< otherwise it may only watch
  std::function<bool()> allowed = {};  ///< whether it is still logged in; null: always

  /// The code to close with, when it is not.
  [[nodiscard]] std::optional<std::uint16_t> over() const {
    if (allowed && !allowed()) return Peer::kLogInAgain;
    return std::nullopt;
  }
};

class VideoPeer;
class ControlPeer;

class Hub final : private StreamListener {
 public:
  Hub(const std::string& host, ToService to_service);
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;
  ~Hub() override;

  /// A frame of the service.
  void take(const ctl::Frame& frame, Time now);

  /// When the stream wants the time, and everything that happens once in a while.
  [[nodiscard]] std::optional<Time> deadline() const;
  void pass_time(Time now);
  /// Whom to tell that deadline() may have come nearer.
  void on_deadline(std::function<void()> changed) { deadline_changed_ = std::move(changed); }
  /// Once a second.
  void each_second(bool linked, Time now);
  /// Ten times a second: tells what has changed. Nothing to do while nobody watches.
  void tell_changes(Time now);
  [[nodiscard]] bool watched() const { return !control_.empty(); }

  /// For a browser that opens a WebSocket. The hub outlives what it gives.
  [[nodiscard]] std::unique_ptr<Peer> open_video(Visitor visitor, Form form);
  [[nodiscard]] std::unique_ptr<Peer> open_control(Visitor visitor);

  /// The whole state, one JSON object.
  [[nodiscard]] std::string state(Time now);

  /// An order of a program: a JSON object, as orders.h has it. The answer is for a person; `ok`
  /// tells whether it was taken.
  struct Result {
    bool ok;
    std::string text;
    bool conflict = false;  ///< somebody else drives
  };
  [[nodiscard]] Result order(std::string_view text, Time now);

  /// The figures for a monitor, in Prometheus' text format.
  [[nodiscard]] std::string metrics(std::size_t connections, Time now);

  /// Where the pictures go as RTP, too; it outlives the hub. Null: nowhere.
  void hand_on(RtpOutput* rtp) { rtp_ = rtp; }

  /// Whether a password is set, for the greeting.
  void has_password(bool has) { has_password_ = has; }

 private:
  friend class VideoPeer;
  friend class ControlPeer;

  void on_epoch(const SharedEpoch& epoch) override;
  void on_picture(const SharedPicture& picture) override;
  void on_waiting(Waiting reason) override;
  void refresh(Time now);
  void refresh_video(Time now);
  void refresh_driving();
  void take_text(Bytes payload, Time now);
  void take_recording(Bytes payload, Time now);
  void ask_for_settings(Time now);
  using Done = std::function<void(bool sent, std::string_view text)>;
  void queue(const cJSON* order, const std::string& from, Done done, Time now);
  void lease_changed(Time now);
  void tell_lease();
  void left(const ControlPeer& peer);
  void deadline_moved();
  [[nodiscard]] std::string name_of(const std::optional<std::string>& who) const;
  [[nodiscard]] ControlPeer* peer_of(std::string_view name) const;

  ToService to_service_;
  Stream stream_;
  Reports reports_;
  State state_;
  CommandQueue queue_;
  Helm helm_;
  Lease lease_;
  ctl::Json report_;  // the last, pass phrases and all: it stays here
  std::function<void()> deadline_changed_;
  RtpOutput* rtp_ = nullptr;
  bool has_password_ = false;
  bool linked_ = false;
  bool settings_known_ = false;
  std::optional<Time> settings_asked_;
  std::optional<bool> records_;  // as the camera said last
  Time recording_told_{};        // and when
  std::uint64_t dropped_ = 0;    // by browsers that are gone
  std::uint64_t orders_refused_ = 0;
  std::uint32_t next_name_ = 1;
  std::vector<VideoPeer*> video_;
  std::vector<ControlPeer*> control_;
  Rate<2> pictures_;
  Rate<2> bytes_;
  Rate<10> datagrams_;
  Rate<10> missing_;
};

}  // namespace nimbus::web
