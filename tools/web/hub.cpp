#include "tools/web/hub.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "net/messages.h"
#include "tools/common/failure.h"
#include "tools/ctl/messages.h"
#include "tools/ctl/settings.h"
#include "tools/web/json_text.h"
#include "tools/web/orders.h"
#include "tools/web/peers.h"

namespace nimbus::web {
namespace {

// Who orders without a connection.
constexpr const char* kProgram = "program";

// The camera tells of its recording several times a second: what it does in such a pause is unseen.
// In a shorter one, as of a bad link, nobody stops a recording and begins another.
constexpr std::chrono::seconds kUnseen{10};

std::string quoted_or_null(const std::optional<std::string>& text) {
  return text ? quoted(*text) : "null";
}

}  // namespace

Hub::Hub(const std::string& host, ToService to_service)
    : to_service_(std::move(to_service)),
      stream_(*this),
      queue_([this](const std::string& text) { return linked_ && to_service_.command(text); }),
      helm_([this](const Helm::Speeds& speeds) { to_service_.speed(speeds); },
            [this] { queue_.rest(order_to_rest(), Clock::now()); }) {
  state_.set("service", "host", quoted(host));
  state_.set("service", "linked", "false");
}

Hub::~Hub() {
  helm_.release(Clock::now());
  // There is no turn to wait for any more.
  if (queue_.rests()) to_service_.command(order_to_rest());
}

// --- From the service --------------------------------------------------------------------------

void Hub::take(const ctl::Frame& frame, Time now) {
  // Whoever sees the first report may act upon it at once.
  if (!linked_) each_second(true, now);
  const std::uint64_t missing = stream_.counts().missing;
  if (frame.video) {
    bytes_.add(frame.payload.size(), now);
    stream_.video(frame.payload, frame.number, now);
  } else {
    stream_.other(frame.number);
    reports_.take(frame.payload, now);
    take_recording(frame.payload, now);
    const bool text = !frame.payload.empty() && frame.payload[0] == type_of(ToViewer::text);
    if (text) take_text(frame.payload, now);
  }
  datagrams_.add(1, now);
  missing_.add(stream_.counts().missing - missing, now);
}

/// Answers let the next command go.
void Hub::take_text(Bytes payload, Time now) {
  const ctl::Message message = ctl::decode_message(payload);
  // A name with a quote in it makes any of them unreadable: such a text is an answer, too.
  const bool scan = message.name == "wifi_scan";
  const bool report = message.name == "report";
  if (report) report_ = ctl::parse_object(message.json);
  if (!scan) settings_known_ = true;
  if (!scan) queue_.replied(Reply::report, now);
  if (!report) queue_.replied(Reply::scan, now);
  deadline_moved();
}

/// Since when the camera records, as far as it was seen to begin, whether or not anybody looks.
void Hub::take_recording(Bytes payload, Time now) {
  const auto records = web::records(payload);
  if (!records) return;
  if (now - std::exchange(recording_told_, now) >= kUnseen) records_.reset();
  if (records_ != records) {
    const bool seen = *records && records_;
    state_.set("recording", "since", seen ? std::to_string(millis_of(now)) : "null");
  }
  records_ = records;
}

void Hub::on_epoch(const SharedEpoch& epoch) {
  for (VideoPeer* const peer : video_) peer->tell(epoch);
  if (rtp_ != nullptr) rtp_->on_epoch(epoch);
}

void Hub::on_picture(const SharedPicture& picture) {
  pictures_.add(1, Clock::now());
  // Kept here, so that what the first browser makes of it is there for all.
  const SharedBytes shared = video_.empty() ? nullptr : Picture::body(picture, Form::fmp4);
  for (VideoPeer* const peer : video_) peer->tell(picture);
  if (rtp_ != nullptr) rtp_->on_picture(picture);
}

void Hub::on_waiting(Waiting reason) {
  for (VideoPeer* const peer : video_) peer->tell(reason);
  if (rtp_ != nullptr) rtp_->on_waiting(reason);
}

// --- Time --------------------------------------------------------------------------------------

std::optional<Time> Hub::deadline() const {
  std::optional<Time> first;
  for (const auto& one : {stream_.deadline(), helm_.deadline(), queue_.deadline()}) {
    if (one && (!first || *one < *first)) first = one;
  }
  return first;
}

void Hub::deadline_moved() {
  if (deadline_changed_) deadline_changed_();
}

void Hub::pass_time(Time now) {
  stream_.pass_time(now);
  helm_.pass_time(now);
  queue_.pass_time(now);
}

void Hub::each_second(bool linked, Time now) {
  if (linked_ && !linked) stream_.interrupt();
  if (linked && !linked_) {
    settings_known_ = false;
    settings_asked_.reset();
  }
  linked_ = linked;
  // Whoever can lose the lease may have left what he moves by a command.
  if (lease_.silent(now)) helm_.release(now);
  pass_time(now);
  deadline_moved();
  if (control_.empty()) return;
  ask_for_settings(now);
  const std::string clock =
      R"({"type":"clock","now":)" + std::to_string(millis_of(now)) + R"(,"echo":null})";
  for (ControlPeer* const peer : control_) peer->say(clock);
}

/// The report goes to every viewer of the service, so it is asked for again only when a question or
/// its answer was lost.
void Hub::ask_for_settings(Time now) {
  const bool asked = settings_asked_ && now - *settings_asked_ < CommandQueue::kReportPatience;
  if (!linked_ || settings_known_ || asked || !queue_.has_room()) return;
  // Others' commands do not wait for an answer that has failed to come before.
  const Reply awaits = settings_asked_ ? Reply::none : Reply::report;
  settings_asked_ = now;
  queue_.push({.text = std::string(ctl::kReportRequest), .awaits = awaits}, now);
  deadline_moved();
}

// --- The state ---------------------------------------------------------------------------------

void Hub::refresh(Time now) {
  reports_.read_into(state_);
  state_.set("service", "linked", json_text(linked_));
  refresh_video(now);
  refresh_driving();
  state_.set("viewers", "browsers", std::to_string(video_.size()));
  state_.set("viewers", "watching", std::to_string(control_.size()));
}

void Hub::refresh_video(Time now) {
  const Epoch& epoch = *stream_.epoch();
  const StreamCounts& counts = stream_.counts();
  const auto number = [this](std::string_view name, std::uint64_t value) {
    state_.set("video", name, std::to_string(value));
  };
  state_.set("video", "kind", quoted(web::name_of(epoch.kind)));
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
  state_.set("video", "waiting", waiting == Waiting::no ? "null" : quoted(web::name_of(waiting)));
}

void Hub::refresh_driving() {
  state_.set("driving", "holder", quoted_or_null(lease_.holder()));
  state_.set("driving", "name", quoted(name_of(lease_.holder())));
  state_.set("driving", "asked_by", quoted_or_null(lease_.asked_by()));
  state_.set("driving", "moving", json_text(helm_.moving()));
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

// --- Browsers ----------------------------------------------------------------------------------

std::unique_ptr<Peer> Hub::open_video(Visitor visitor, Form form) {
  return std::make_unique<VideoPeer>(*this, std::move(visitor), form);
}

std::unique_ptr<Peer> Hub::open_control(Visitor visitor) {
  const Time now = Clock::now();
  refresh(now);
  auto peer =
      std::make_unique<ControlPeer>(*this, std::move(visitor), "b" + std::to_string(next_name_++));
  tell_lease();
  ask_for_settings(now);
  return peer;
}

ControlPeer* Hub::peer_of(std::string_view name) const {
  const auto found = std::find_if(control_.begin(), control_.end(),
                                  [name](const auto* peer) { return peer->name() == name; });
  return found == control_.end() ? nullptr : *found;
}

std::string Hub::name_of(const std::optional<std::string>& who) const {
  const ControlPeer* const peer = peer_of(who.value_or(""));
  return peer == nullptr ? "" : peer->visitor().address;
}

/// Whoever moved the gimbal does not any more, and what he has ordered is not done later.
void Hub::lease_changed(Time now) {
  helm_.release(now);
  queue_.drop(
      [this](const QueuedCommand& one) { return !one.from.empty() && !lease_.held_by(one.from); },
      "you no longer drive");
  tell_lease();
}

void Hub::tell_lease() {
  const std::string start = R"({"type":"lease","holder":)" + quoted_or_null(lease_.holder()) +
                            R"(,"name":)" + quoted(name_of(lease_.holder())) + R"(,"asked_by":)" +
                            quoted_or_null(lease_.asked_by()) + R"(,"asked_name":)" +
                            quoted(name_of(lease_.asked_by())) + R"(,"you":)";
  for (ControlPeer* const peer : control_) {
    peer->say(start + json_text(lease_.held_by(peer->name())) + "}");
  }
}

void Hub::left(const ControlPeer& peer) {
  const Time now = Clock::now();
  const bool drove = lease_.held_by(peer.name());
  lease_.release(peer.name(), now);
  if (drove) {
    lease_changed(now);
  } else {
    tell_lease();
  }
  deadline_moved();
}

// --- Orders ------------------------------------------------------------------------------------

/// A person waits for a while only; a program is told nothing later, and waits for its turn.
void Hub::queue(const cJSON* order, const std::string& from, Done done, Time now) {
  Orders orders = orders_of(order, report_.get());
  if (!linked_) throw tools::Failure("the service does not answer");
  if (!queue_.has_room(orders.size())) {
    throw tools::Failure("too many commands wait already; expected a moment's patience");
  }
  QueuedCommand& first = orders.front();
  first.from = from;
  if (done) first.until = now + CommandQueue::kPatience;
  first.done = [this, moves = first.moves, done = std::move(done)](bool sent,
                                                                   std::string_view text) {
    if (!sent) ++orders_refused_;
    if (sent && moves) helm_.commanded(*moves);
    if (done) done(sent, text);
  };
  if (orders.back().awaits == Reply::report) {
    settings_known_ = false;
    settings_asked_ = now;
  }
  for (QueuedCommand& one : orders) queue_.push(std::move(one), now);
  deadline_moved();
}

Hub::Result Hub::order(std::string_view text, Time now) {
  const ctl::Json json = ctl::parse_object(text);
  if (json == nullptr)
    return {false, "no JSON object; expected one such as {\"words\":[\"shot\"]}"};
  if (lease_.holder()) return {false, name_of(lease_.holder()) + " drives", true};
  try {
    queue(json.get(), kProgram, {}, now);
    return {true, "taken"};
  } catch (const tools::Failure& failure) {
    ++orders_refused_;
    // What it needs to know of the service is there for its next try. What came may be unreadable.
    if (report_ == nullptr) settings_known_ = false;
    ask_for_settings(now);
    return {false, failure.what()};
  }
}

}  // namespace nimbus::web
