#include "tools/web/peers.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "tools/common/failure.h"
#include "tools/common/version.h"
#include "tools/web/json_text.h"
#include "tools/web/tables.h"

namespace nimbus::web {
namespace {

using ctl::member;

constexpr std::size_t kMostBytes = std::size_t{64} * 1024;  // that wait for one browser

double number(const cJSON* object, const char* name) {
  const cJSON* const item = member(object, name);
  return cJSON_IsNumber(item) != 0 ? item->valuedouble : 0;
}

/// A count of a browser. What is none is 0.
std::uint64_t count_of(double number) {
  constexpr double kMost = 9e15;
  return number >= 0 && number < kMost ? static_cast<std::uint64_t>(number) : 0;
}

}  // namespace

// --- Pictures ----------------------------------------------------------------------------------

VideoPeer::VideoPeer(Hub& hub, Visitor visitor, Form form)
    : hub_(hub), visitor_(std::move(visitor)), reader_(form, hub.stream_) {
  hub_.video_.push_back(this);
}

VideoPeer::~VideoPeer() {
  hub_.dropped_ += reader_.dropped();
  std::erase(hub_.video_, this);
}

std::optional<std::uint16_t> VideoPeer::received(std::string_view text) {
  if (ctl::parse_object(text) == nullptr) return kNoJson;
  return std::nullopt;
}

void VideoPeer::tell(const SharedEpoch& epoch) {
  reader_.on_epoch(epoch);
  wake();
}

void VideoPeer::tell(const SharedPicture& picture) {
  reader_.on_picture(picture);
  wake();
}

void VideoPeer::tell(Waiting reason) {
  reader_.on_waiting(reason);
  wake();
}

// --- What a browser is told --------------------------------------------------------------------

ControlPeer::ControlPeer(Hub& hub, Visitor visitor, std::string name)
    : hub_(hub), visitor_(std::move(visitor)), name_(std::move(name)) {
  hub_.control_.push_back(this);
  say_greeting();
}

ControlPeer::~ControlPeer() {
  alive_.reset();
  std::erase(hub_.control_, this);
  hub_.left(*this);
}

void ControlPeer::say_greeting() {
  say(R"({"type":"hello","version":)" + quoted(tools::version_text()) + R"(,"you":)" +
      quoted(name_) + R"(,"role":)" + (visitor_.operates ? R"("operator")" : R"("viewer")") +
      R"(,"password":)" + json_text(hub_.has_password_) + "," + tables_json() + "}");
}

std::optional<Message> ControlPeer::next() {
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

void ControlPeer::say_notice(const std::string& text) {
  say(R"({"type":"notice","text":)" + quoted(text) + "}");
}

void ControlPeer::say_result(const cJSON* message, bool ok, const std::string& text) {
  const cJSON* const id = member(message, "id");
  say(R"({"type":"result","id":)" + (id == nullptr ? "null" : ctl::line_of(id)) + R"(,"ok":)" +
      json_text(ok) + R"(,"text":)" + quoted(text) + "}");
}

// --- What a browser says -----------------------------------------------------------------------

struct ControlRows {
  struct Row {
    std::string_view type;
    void (ControlPeer::*act)(const cJSON* message, Time now);
    bool operates;  ///< not for those who may only watch
  };
  static constexpr std::array<Row, 10> kRows{{
      // clang-format off
      {"ping",      &ControlPeer::on_ping,      false},
      {"take",      &ControlPeer::on_take,      true},
      {"release",   &ControlPeer::on_release,   true},
      {"heartbeat", &ControlPeer::on_heartbeat, true},
      {"grant",     &ControlPeer::on_grant,     true},
      {"deny",      &ControlPeer::on_deny,      true},
      {"speed",     &ControlPeer::on_speed,     true},
      {"command",   &ControlPeer::on_order,     true},
      {"set",       &ControlPeer::on_order,     true},
      {"scan",      &ControlPeer::on_order,     true},
      // clang-format on
  }};
};

std::optional<std::uint16_t> ControlPeer::received(std::string_view text) {
  if (const auto code = visitor_.over()) return code;
  const ctl::Json json = ctl::parse_object(text);
  if (json == nullptr) return kNoJson;
  const std::string type = ctl::member_text(json.get(), "type");
  for (const auto& row : ControlRows::kRows) {
    if (row.type != type) continue;
    if (row.operates && !visitor_.operates) {
      say_result(json.get(), false, "you are logged in to watch only");
    } else {
      (this->*row.act)(json.get(), Clock::now());
      hub_.deadline_moved();
    }
  }
  return std::nullopt;
}

void ControlPeer::on_ping(const cJSON* message, Time now) {
  const cJSON* const echo = member(message, "echo");
  say(R"({"type":"clock","now":)" + std::to_string(millis_of(now)) + R"(,"echo":)" +
      (cJSON_IsNumber(echo) != 0 || cJSON_IsString(echo) != 0 ? ctl::line_of(echo) : "null") + "}");
}

void ControlPeer::on_take(const cJSON* /*message*/, Time now) {
  if (hub_.lease_.held_by(name_)) {
    hub_.lease_.heartbeat(name_, now);
    return;
  }
  if (hub_.lease_.take(name_, now)) return hub_.lease_changed(now);
  if (const auto& asked_by = hub_.lease_.asked_by(); asked_by != name_) {
    say_notice(asked_by ? "Somebody else asks for the controls already: ask again in a moment."
                        : "Whoever drives has just kept the controls: ask again in a moment.");
  }
  hub_.tell_lease();
}

/// For the lease, whoever gives it back has left.
void ControlPeer::on_release(const cJSON* /*message*/, Time /*now*/) { hub_.left(*this); }

void ControlPeer::on_heartbeat(const cJSON* /*message*/, Time now) {
  hub_.lease_.heartbeat(name_, now);
}

void ControlPeer::on_grant(const cJSON* message, Time now) {
  const std::string to = ctl::member_text(message, "to");
  const ControlPeer* const other = hub_.peer_of(to);
  if (other == nullptr || !other->visitor_.operates) return;
  if (hub_.lease_.grant(name_, to, now)) hub_.lease_changed(now);
}

void ControlPeer::on_deny(const cJSON* /*message*/, Time now) {
  const auto asked_by = hub_.lease_.asked_by();
  if (!hub_.lease_.deny(name_, now)) return;
  if (ControlPeer* const other = hub_.peer_of(asked_by.value_or(""))) {
    other->say_notice("Whoever drives keeps the controls.");
  }
  hub_.tell_lease();
}

bool ControlPeer::drives() const { return hub_.lease_.held_by(name_); }

void ControlPeer::on_speed(const cJSON* message, Time now) {
  if (!drives()) return;
  hub_.lease_.heartbeat(name_, now);
  const std::array<double, 3> parts{number(message, "pan"), number(message, "tilt"),
                                    number(message, "roll")};
  if (parts == std::array<double, 3>{}) {
    hub_.queue_.drop([](const QueuedCommand& one) { return one.moves.value_or(false); },
                     "the gimbal was told to stop");
  }
  hub_.helm_.steer(parts, count_of(number(message, "n")), now);
}

void ControlPeer::on_order(const cJSON* message, Time now) {
  if (!drives()) return say_result(message, false, "you do not drive; take control first");
  hub_.lease_.heartbeat(name_, now);
  const std::shared_ptr<cJSON> kept(cJSON_Duplicate(message, 1), cJSON_Delete);
  try {
    hub_.queue(
        message, name_,
        [this, kept, alive = std::weak_ptr<int>(alive_)](bool sent, std::string_view text) {
          if (!alive.expired()) say_result(kept.get(), sent, std::string(text));
        },
        now);
  } catch (const tools::Failure& failure) {
    ++hub_.orders_refused_;
    say_result(message, false, failure.what());
  }
}

}  // namespace nimbus::web
