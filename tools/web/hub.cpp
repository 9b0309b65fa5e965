#include "tools/web/hub.h"

#include <algorithm>
#include <cmath>
#include <deque>

#include "tools/ctl/json.h"
#include "tools/web/json_text.h"
#include "tools/web/tables.h"

namespace nimbus::web {

// --- Pictures to a browser ---------------------------------------------------------------------

class VideoPeer final : public Peer {
 public:
  VideoPeer(Hub& hub, Form form) : hub_(hub), reader_(form, hub.stream_) {
    hub_.video_.push_back(this);
  }
  VideoPeer(const VideoPeer&) = delete;
  VideoPeer& operator=(const VideoPeer&) = delete;
  ~VideoPeer() override { std::erase(hub_.video_, this); }

  std::optional<Message> next() override { return reader_.next(); }
  bool received(std::string_view /*text*/) override { return true; }

  void tell(const SharedEpoch& epoch) {
    reader_.on_epoch(epoch);
    wake();
  }
  void tell(const SharedPicture& picture) {
    reader_.on_picture(picture);
    wake();
  }
  void tell(Waiting reason) {
    reader_.on_waiting(reason);
    wake();
  }

 private:
  Hub& hub_;
  Reader reader_;
};

// --- State to a browser, and what it says ------------------------------------------------------

class ControlPeer final : public Peer {
 public:
  ControlPeer(Hub& hub, Visitor visitor, std::string name)
      : hub_(hub), visitor_(std::move(visitor)), name_(std::move(name)) {
    hub_.control_.push_back(this);
  }
  ControlPeer(const ControlPeer&) = delete;
  ControlPeer& operator=(const ControlPeer&) = delete;
  ~ControlPeer() override { std::erase(hub_.control_, this); }

  std::optional<Message> next() override;
  bool received(std::string_view text) override;

  /// A text for this browser. One that does not keep up gets the whole state later.
  void say(std::string text);
  void say_changes(const std::string& message);

 private:
  static constexpr std::size_t kMostBytes = 64 * 1024;

  Hub& hub_;
  Visitor visitor_;
  std::string name_;
  std::deque<std::string> texts_;
  std::size_t bytes_ = 0;
  bool needs_whole_ = true;
  bool greeted_ = false;
};

std::optional<Message> ControlPeer::next() {
  if (!greeted_) {
    greeted_ = true;
    return text_message(R"({"type":"hello","version":)" + quoted(version_text()) + R"(,"you":)" +
                        quoted(name_) + R"(,"role":)" +
                        (visitor_.operates ? R"("operator")" : R"("viewer")") +
                        R"(,"password":false,)" + tables_json() + "}");
  }
  if (!texts_.empty()) {
    const std::string text = std::move(texts_.front());
    texts_.pop_front();
    bytes_ -= text.size();
    return text_message(text);
  }
  if (!needs_whole_) return std::nullopt;
  needs_whole_ = false;
  return text_message(R"({"type":"state",)" + hub_.state_.whole().substr(1));
}

void ControlPeer::say(std::string text) {
  if (bytes_ + text.size() > kMostBytes) return;
  bytes_ += text.size();
  texts_.push_back(std::move(text));
  wake();
}

void ControlPeer::say_changes(const std::string& message) {
  if (needs_whole_) return;
  if (bytes_ + message.size() > kMostBytes) {
    needs_whole_ = true;
    return;
  }
  say(message);
}

bool ControlPeer::received(std::string_view text) {
  const ctl::Json json = ctl::parse_object(text);
  if (json == nullptr) return false;
  const std::string type = ctl::member_text(json.get(), "type");
  if (type == "ping") {
    const cJSON* const echo = cJSON_GetObjectItemCaseSensitive(json.get(), "echo");
    say(R"({"type":"clock","now":)" + std::to_string(millis_of(Clock::now())) + R"(,"echo":)" +
        (echo == nullptr ? "null" : ctl::line_of(echo)) + "}");
  }
  return true;
}

// --- The hub -----------------------------------------------------------------------------------

Hub::Hub(std::string host, ToService to_service)
    : to_service_(std::move(to_service)), stream_(*this) {
  state_.set("service", "host", quoted(host));
  state_.set("service", "linked", "false");
}

Hub::~Hub() = default;

void Hub::take(const ctl::Frame& frame, Time now) {
  const std::uint64_t missing = stream_.counts().missing;
  if (frame.video) {
    bytes_.add(frame.payload.size(), now);
    stream_.video(frame.payload, frame.number, now);
  } else {
    stream_.other(frame.number);
    reports_.take(frame.payload, now);
  }
  datagrams_.add(1, now);
  missing_.add(stream_.counts().missing - missing, now);
}

void Hub::pass_time(Time now) { stream_.pass_time(now); }

void Hub::each_second(bool linked, Time now) {
  if (linked_ && !linked) stream_.interrupt();
  if (linked && !linked_) settings_asked_ = false;
  linked_ = linked;
  stream_.pass_time(now);
  if (control_.empty()) return;
  ask_for_settings();
  const std::string clock =
      R"({"type":"clock","now":)" + std::to_string(millis_of(now)) + R"(,"echo":null})";
  for (ControlPeer* const peer : control_) peer->say(clock);
}

/// The report goes to every viewer of the service, so it is asked for once only.
void Hub::ask_for_settings() {
  if (!linked_ || settings_asked_) return;
  settings_asked_ = to_service_.command(R"({"cmd":"configrequest"})");
}

void Hub::refresh(Time now) {
  reports_.read_into(state_);
  state_.set("service", "linked", json_text(linked_));
  const Epoch& epoch = *stream_.epoch();
  const StreamCounts& counts = stream_.counts();
  const auto number = [this](std::string_view name, std::uint64_t value) {
    state_.set("video", name, std::to_string(value));
  };
  state_.set("video", "kind", quoted(name_of(epoch.kind)));
  state_.set("video", "codec", quoted(epoch.codec));
  number("width", epoch.width);
  number("height", epoch.height);
  number("pictures", counts.pictures);
  number("key_pictures", counts.key_pictures);
  number("discarded", counts.discarded);
  number("gaps", counts.gaps);
  number("bitrate", bytes_.sum(now) * 8 / 2);
  state_.set("video", "rate", json_text(pictures_.per_second(now)));
  const std::uint64_t missing = missing_.sum(now);
  const std::uint64_t all = missing + datagrams_.sum(now);
  const double loss = all == 0 ? 0 : static_cast<double>(missing) / static_cast<double>(all);
  state_.set("video", "loss", json_text(std::round(loss * 1e4) / 1e4));
  const Waiting waiting = stream_.waiting();
  state_.set("video", "waiting", waiting == Waiting::no ? "null" : quoted(name_of(waiting)));
  state_.set("viewers", "browsers", std::to_string(video_.size()));
  state_.set("viewers", "watching", std::to_string(control_.size()));
}

void Hub::tell_changes(Time now) {
  refresh(now);
  const std::string changes = state_.take_changes();
  if (changes.empty()) return;
  const std::string message = R"({"type":"state",)" + changes.substr(1);
  for (ControlPeer* const peer : control_) peer->say_changes(message);
}

std::string Hub::state(Time now) {
  refresh(now);
  return state_.whole();
}

std::unique_ptr<Peer> Hub::open_video(Form form) {
  return std::make_unique<VideoPeer>(*this, form);
}

std::unique_ptr<Peer> Hub::open_control(Visitor visitor) {
  refresh(Clock::now());
  auto peer =
      std::make_unique<ControlPeer>(*this, std::move(visitor), "b" + std::to_string(next_name_++));
  ask_for_settings();
  return peer;
}

void Hub::on_epoch(const SharedEpoch& epoch) {
  for (VideoPeer* const peer : video_) peer->tell(epoch);
}

void Hub::on_picture(const SharedPicture& picture) {
  pictures_.add(1, Clock::now());
  // Kept here, so that what the first browser makes of it is there for all.
  const SharedBytes shared = video_.empty() ? nullptr : Picture::body(picture, Form::fmp4);
  for (VideoPeer* const peer : video_) peer->tell(picture);
}

void Hub::on_waiting(Waiting reason) {
  for (VideoPeer* const peer : video_) peer->tell(reason);
}

}  // namespace nimbus::web
