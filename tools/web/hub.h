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

#include "tools/ctl/viewer_link.h"
#include "tools/web/peer.h"
#include "tools/web/rate.h"
#include "tools/web/reports.h"
#include "tools/web/state.h"
#include "tools/web/stream.h"

namespace nimbus::web {

/// The way to the service.
struct ToService {
  std::function<bool(std::string_view)> command;
  std::function<bool(const std::array<std::int16_t, 3>&)> speed;
};

/// Who has opened a control connection.
struct Visitor {
  std::string address;
  bool operates = true;  ///< otherwise it may only watch
};

class VideoPeer;
class ControlPeer;

class Hub : private StreamListener {
 public:
  Hub(std::string host, ToService to_service);
  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;
  ~Hub();

  /// A frame of the service.
  void take(const ctl::Frame& frame, Time now);

  /// When the stream wants the time, and everything that happens once in a while.
  [[nodiscard]] std::optional<Time> deadline() const { return stream_.deadline(); }
  void pass_time(Time now);
  /// Once a second.
  void each_second(bool linked, Time now);
  /// Ten times a second: tells what has changed. Nothing to do while nobody watches.
  void tell_changes(Time now);
  [[nodiscard]] bool watched() const { return !control_.empty(); }

  /// For a browser that opens a WebSocket. The hub outlives what it gives.
  [[nodiscard]] std::unique_ptr<Peer> open_video(Form form);
  [[nodiscard]] std::unique_ptr<Peer> open_control(Visitor visitor);

  /// The whole state, one JSON object.
  [[nodiscard]] std::string state(Time now);

  [[nodiscard]] const Stream& stream() const { return stream_; }

 private:
  friend class VideoPeer;
  friend class ControlPeer;

  void on_epoch(const SharedEpoch& epoch) override;
  void on_picture(const SharedPicture& picture) override;
  void on_waiting(Waiting reason) override;
  void refresh(Time now);
  void ask_for_settings();

  ToService to_service_;
  Stream stream_;
  Reports reports_;
  State state_;
  bool linked_ = false;
  bool settings_asked_ = false;
  std::uint32_t next_name_ = 1;
  std::vector<VideoPeer*> video_;
  std::vector<ControlPeer*> control_;
  Rate<2> pictures_;
  Rate<2> bytes_;
  Rate<10> datagrams_;
  Rate<10> missing_;
};

}  // namespace nimbus::web
