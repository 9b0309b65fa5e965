#include "tools/ctl/top_screen.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <variant>

#include "net/messages.h"
#include "net/sources.h"
#include "tools/common/text.h"
#include "tools/common/udp_socket.h"
#include "tools/sim/commands.h"
#include "tools/sim/frame.h"

namespace nimbus::ctl {
namespace {

using tools::format_text;

constexpr double kSilence = 3;  // seconds; the service says something once a second
constexpr std::size_t kMostEvents = 8;

double seconds_between(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

std::string bar(double part, std::size_t width) {
  const double clamped = std::clamp(part, 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(std::lround(clamped * static_cast<double>(width)));
  std::string text(filled, '=');
  text.resize(width, ' ');
  return "[" + text + "]";
}

const Field* find_field(const Fields& fields, std::string_view name) {
  const auto found = std::find_if(fields.begin(), fields.end(),
                                  [name](const Field& field) { return field.name == name; });
  return found == fields.end() ? nullptr : &*found;
}

/// The kinds of which somebody wants to know what has changed. The others change all the time.
bool changes_are_told(std::string_view name) {
  return name == "camera_settings" || name == "flags" || name == "orientation";
}

/// Whether it is known to come of a report of the camera. Without a camera, too, the service tells
/// of itself and of the RC receiver, and answers viewers with texts.
bool comes_of_a_report(const Message& message) {
  constexpr std::array<std::string_view, 5> kOwn{"connection", "flags", "version", "rc_channels",
                                                 "unknown"};
  return message.json.empty() && std::ranges::find(kOwn, message.name) == kOwn.end();
}

/// What a terminal cannot show, or would obey, becomes a question mark. Whether a byte from 0x80 on
/// is a negative char depends on the processor.
std::string as_ascii(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text;
}

}  // namespace

void TopScreen::Traffic::add(std::size_t size, Clock::time_point now) {
  ++frames;
  bytes += size;
  last = now;
}

void TopScreen::take(const Frame& frame, Clock::time_point now) {
  gaps_.take(frame.number);
  ++frames_;
  heard_ = now;
  if (frame.video) return video_.add(frame.payload.size(), now);
  Message message = decode_message(frame.payload);
  if (comes_of_a_report(message)) data_.add(frame.payload.size(), now);
  if (message.name == "connection") {
    const Field* const source = find_field(message.fields, "source");
    const Field* const connected = find_field(message.fields, "connected");
    connected_[text_of(source->value)] = std::get<bool>(connected->value);
    return;
  }
  note_changes(message, now);
  state_[std::string(message.name)] = std::move(message.fields);
}

void TopScreen::note_changes(const Message& message, Clock::time_point now) {
  const auto before = state_.find(message.name);
  if (before == state_.end() || !changes_are_told(message.name)) return;
  for (const Field& field : message.fields) {
    const Field* const old = find_field(before->second, field.name);
    if (old == nullptr || old->value == field.value) continue;
    std::string name(field.name);
    std::replace(name.begin(), name.end(), '_', ' ');
    note(changes_, {name + ": " + text_of(old->value) + " -> " + text_of(field.value), now});
  }
}

void TopScreen::note(Events& events, Event event) {
  events.push_front(std::move(event));
  if (events.size() > kMostEvents) events.pop_back();
}

void TopScreen::overhear(const sim::UdpDatagram& datagram, Clock::time_point now) {
  if (datagram.source_port == kDataPort) return overhear_frame(datagram.payload, now);
  const auto frame = decode_frame(datagram.payload);
  if (!frame || frame->payload.empty()) return;
  if (static_cast<FromViewer>(frame->payload[0]) != FromViewer::command) return;
  // What stands behind a zero is not read by the service either.
  const std::string text(frame->payload.begin(), std::ranges::find(frame->payload, 0));
  note(commands_, {tools::dotted(datagram.source) + ": " + text, now});
}

void TopScreen::overhear_frame(std::span<const std::uint8_t> datagram, Clock::time_point now) {
  const auto checked = sim::check_frame(datagram);
  const auto* const frame = std::get_if<sim::Frame>(&checked);
  const sim::CameraCommand* const command = frame != nullptr ? sim::find_command(*frame) : nullptr;
  if (command == nullptr) return;
  Event event{"to the camera: " + sim::describe(*command, frame->payload), now};
  if (!command->streamed) return note(commands_, std::move(event));
  event.streamed = command->name;
  const auto known = std::ranges::find(commands_, event.streamed, &Event::streamed);
  if (known == commands_.end()) return note(commands_, std::move(event));
  *known = std::move(event);
}

/// Rates are those of the last whole second.
void TopScreen::measure(Clock::time_point now) {
  const double seconds = seconds_between(second_, now);
  if (seconds < 1) return;
  const auto rate = [seconds](Traffic& traffic, Traffic& before) {
    traffic.frame_rate = static_cast<double>(traffic.frames - before.frames) / seconds;
    traffic.bit_rate = static_cast<double>(traffic.bytes - before.bytes) * 8 / seconds;
    before = traffic;
  };
  rate(data_, data_before_);
  rate(video_, video_before_);
  second_ = now;
}

std::string TopScreen::word(const char* message, const char* field) const {
  const auto known = state_.find(message);
  const Field* const found = known == state_.end() ? nullptr : find_field(known->second, field);
  return found == nullptr ? "-" : text_of(found->value);
}

std::vector<int> TopScreen::numbers(const char* message, const char* field) const {
  const auto known = state_.find(message);
  const Field* const found = known == state_.end() ? nullptr : find_field(known->second, field);
  return found == nullptr ? std::vector<int>{} : std::get<std::vector<int>>(found->value);
}

ScreenLine TopScreen::link_line(const char* name, const Traffic& traffic, bool connected,
                                Clock::time_point now) {
  std::string text =
      format_text("%-12s %-10s %6.1f/s %8.1f kbit/s", name, connected ? "found" : "lost",
                  traffic.frame_rate, traffic.bit_rate / 1000);
  if (traffic.frames == 0) return {text + "  never", Look::warning};
  text += format_text("  %.1f s ago", seconds_between(traffic.last, now));
  return {text, connected ? Look::plain : Look::warning};
}

void TopScreen::add_state(std::vector<ScreenLine>& all, Clock::time_point now) const {
  const auto connected = [this](const char* source) {
    const auto known = connected_.find(source);
    return known != connected_.end() && known->second;
  };
  all.push_back(link_line("camera data", data_, connected("camera data"), now));
  all.push_back(link_line("video", video_, connected("video"), now));
  const unsigned long long received = frames_;
  const unsigned long long missing = gaps_.missing();
  all.push_back({format_text("frames       %llu received, %llu missing in %llu gaps, %llu late, "
                             "%llu restarts",
                             received, missing, static_cast<unsigned long long>(gaps_.gaps()),
                             static_cast<unsigned long long>(gaps_.late()),
                             static_cast<unsigned long long>(gaps_.restarts())),
                 missing > 0 ? Look::warning : Look::plain});
  const auto settings = [this](const char* field) { return word("camera_settings", field); };
  all.push_back({"camera       " + word("camera_status", "camera_mode") + ", exposure " +
                 settings("exposure_mode") + ", ISO " + settings("iso") + ", " +
                 settings("shutter") + ", f/" + settings("aperture") + ", EV " + settings("ev")});
  all.push_back({"             white balance " + settings("white_balance") + " " +
                 settings("colour_temperature") + " K, colour " + settings("colour") + ", " +
                 settings("resolution") + " at " + settings("frame_rate") + ", photos " +
                 settings("photo_format")});
  all.push_back({"recording    state " + word("recording_timer", "state") + ", " +
                 word("recording_timer", "seconds") + " s; tracking " + word("tracking", "on")});
  all.push_back({"gimbal       " + word("gimbal_attitude", "angle_1") + ", " +
                 word("gimbal_attitude", "angle_2") + ", " + word("gimbal_attitude", "angle_3") +
                 " degrees; orientation locked " + word("orientation", "locked")});
  all.push_back({"lens         zoom " + word("zoom", "zoom") + ", focus " +
                 word("focus_values", "focus_1") + " " + word("focus_values", "focus_2")});
}

/// Two on a line, where there is room.
void TopScreen::add_channels(std::vector<ScreenLine>& all, std::size_t width) const {
  constexpr double kLowest = 1000;
  constexpr double kRange = 1000;
  constexpr std::size_t kBar = 24;
  constexpr std::size_t kColumn = kBar + 14;
  const auto channels = numbers("rc_channels", "channels");
  if (channels.empty()) return;
  all.push_back({"RC receiver, state " + word("rc_channels", "rc_status"), Look::title});
  const std::size_t columns = std::max<std::size_t>(width / kColumn, 1);
  for (std::size_t n = 0; n < channels.size(); ++n) {
    std::string one = format_text("%3zu ", n + 1) + bar((channels[n] - kLowest) / kRange, kBar) +
                      format_text(" %5d  ", channels[n]);
    if (n % columns == 0) all.push_back({});
    all.back().text += one;
  }
}

void TopScreen::add_histogram(std::vector<ScreenLine>& all, std::size_t rows) const {
  const auto bins = numbers("histogram", "bins");
  if (bins.empty() || rows == 0) return;
  all.push_back({"histogram", Look::title});
  const double highest = std::max(1, *std::max_element(bins.begin(), bins.end()));
  for (std::size_t row = rows; row-- > 0;) {
    std::string line;
    for (const int bin : bins) {
      const double level = bin / highest * static_cast<double>(rows);
      line += level > static_cast<double>(row) + 0.25 ? '#' : ' ';
    }
    all.push_back({line});
  }
}

void TopScreen::add_events(std::vector<ScreenLine>& all, const char* title, const Events& events,
                           Clock::time_point now) {
  if (events.empty()) return;
  all.push_back({title, Look::title});
  for (const Event& event : events) {
    all.push_back({format_text("%6.0f s ago  ", seconds_between(event.at, now)) + event.text});
  }
}

std::vector<ScreenLine> TopScreen::lines(Clock::time_point now, std::size_t width,
                                         std::size_t height) {
  constexpr std::size_t kHistogram = 6;
  measure(now);
  std::vector<ScreenLine> all;
  const double silent = seconds_between(heard_, now);
  all.push_back({"Nimbus " + word("version", "version") + " at " + where_ + "   viewers " +
                     word("flags", "viewers") + "   q: end" +
                     (silent > kSilence ? format_text("   silent for %.0f s", silent) : ""),
                 silent > kSilence ? Look::warning : Look::title});
  add_state(all, now);
  add_events(all, "commands", commands_, now);
  add_events(all, "changes", changes_, now);
  add_channels(all, width);
  add_histogram(all, kHistogram);
  if (all.size() > height) all.resize(height);
  for (ScreenLine& line : all) {
    line.text = as_ascii(std::move(line.text));
    if (line.text.size() > width) line.text.resize(width);
  }
  return all;
}

}  // namespace nimbus::ctl
