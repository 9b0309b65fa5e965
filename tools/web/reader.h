// What one browser still has to get of the picture.
//
// A browser on a slow link must not fall behind for good, nor cost memory, nor be noticed by the
// others. So little waits for it, or, as long as it has just joined, what the stream keeps for
// that; when it is too much, all of it is thrown away, and the browser goes on with the next key
// picture.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "tools/web/picture.h"
#include "tools/web/stream.h"

namespace nimbus::web {

/// A message for a browser: its bytes are those of `head`, and behind them of `body`.
struct Message {
  bool text = false;
  Buffer head;
  SharedBytes body;  ///< may be null

  [[nodiscard]] std::size_t size() const {
    return head.size() + (body == nullptr ? 0 : body->size());
  }
};

[[nodiscard]] Message text_message(const std::string& text);

class Reader {
 public:
  static constexpr std::size_t kMostPictures = 8;
  static constexpr std::size_t kMostBytes = std::size_t{256} * 1024;

  Reader(Form form, const Stream& stream);

  void on_epoch(const SharedEpoch& epoch);
  void on_picture(const SharedPicture& picture);
  void on_waiting(Waiting reason);

  /// The next message; nothing when this browser has everything.
  [[nodiscard]] std::optional<Message> next();

  [[nodiscard]] std::size_t depth() const { return pictures_.size(); }
  [[nodiscard]] std::uint64_t dropped() const { return dropped_; }

 private:
  void push(const SharedPicture& picture);
  void overflow();
  [[nodiscard]] Message stream_message() const;
  [[nodiscard]] Message initialisation_message(const SharedPicture& before) const;
  [[nodiscard]] Message picture_message(const SharedPicture& picture);
  [[nodiscard]] mp4::Span span_for(const Picture& picture) const;

  Form form_;
  SharedEpoch epoch_;
  std::deque<SharedPicture> pictures_;
  std::size_t bytes_ = 0;
  bool catches_up_ = true;  // with what was there when it joined
  bool needs_key_ = false;
  bool stream_told_ = false;
  bool initialised_ = false;
  bool after_gap_ = false;
  std::optional<Waiting> waiting_;  // to be told
  std::uint64_t end_ = 0;           // of the last fragment that was given
  std::uint64_t dropped_ = 0;
};

}  // namespace nimbus::web
