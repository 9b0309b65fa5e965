// The screen of `nimbusctl top`: what has come so far, laid out as lines for any size of terminal.
// No clock and no terminal: both are told.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/ctl/gap_counter.h"
#include "tools/ctl/messages.h"
#include "tools/ctl/viewer_link.h"
#include "tools/sim/packet.h"

namespace nimbus::ctl {

enum class Look : std::uint8_t { plain, title, warning };

struct ScreenLine {
  std::string text;
  Look look = Look::plain;
};

class TopScreen {
 public:
  TopScreen(std::string where, Clock::time_point start)
      : where_(std::move(where)), heard_(start), second_(start) {}

  void take(const Frame& frame, Clock::time_point now);

  /// What a viewer tells the service, or the service the camera, as it passes by.
  void overhear(const sim::UdpDatagram& datagram, Clock::time_point now);

  /// At most `height` lines of at most `width` characters, all of them ASCII.
  [[nodiscard]] std::vector<ScreenLine> lines(Clock::time_point now, std::size_t width,
                                              std::size_t height);

 private:
  /// How much came over one kind of traffic.
  struct Traffic {
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    double frame_rate = 0;  // a second
    double bit_rate = 0;    // a second
    Clock::time_point last{};

    void add(std::size_t size, Clock::time_point now);
  };

  void measure(Clock::time_point now);
  void note_changes(const Message& message, Clock::time_point now);
  [[nodiscard]] std::string word(const char* message, const char* field) const;
  [[nodiscard]] std::vector<int> numbers(const char* message, const char* field) const;
  [[nodiscard]] static ScreenLine link_line(const char* name, const Traffic& traffic,
                                            bool connected, Clock::time_point now);
  void add_state(std::vector<ScreenLine>& all, Clock::time_point now) const;
  void add_channels(std::vector<ScreenLine>& all, std::size_t width) const;
  void add_histogram(std::vector<ScreenLine>& all, std::size_t rows) const;
  void overhear_frame(std::span<const std::uint8_t> datagram, Clock::time_point now);

  /// Something that happened, and when.
  struct Event {
    std::string text;
    Clock::time_point at;
    std::string_view streamed = {};  ///< the command's name, of those that come again and again
  };
  using Events = std::deque<Event>;  // the newest first

  static void note(Events& events, Event event);
  static void add_events(std::vector<ScreenLine>& all, const char* title, const Events& events,
                         Clock::time_point now);

  std::string where_;
  std::uint64_t frames_ = 0;  // of every kind
  Clock::time_point heard_;   // when the last of them came, or the start
  Clock::time_point second_;  // of which rates are measured
  Traffic data_;              // what comes of the camera's reports
  Traffic video_;
  Traffic data_before_;
  Traffic video_before_;
  GapCounter gaps_;
  std::map<std::string, Fields, std::less<>> state_;
  std::map<std::string, bool, std::less<>> connected_;  // by source
  Events changes_;
  Events commands_;
};

}  // namespace nimbus::ctl
