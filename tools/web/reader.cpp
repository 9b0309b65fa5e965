#include "tools/web/reader.h"

#include <algorithm>
#include <utility>

namespace nimbus::web {

Message text_message(const std::string& text) {
  return {.text = true, .head = {text.begin(), text.end()}, .body = nullptr};
}

Reader::Reader(Form form, const Stream& stream) : form_(form), epoch_(stream.epoch()) {
  if (stream.waiting() != Waiting::no) waiting_ = stream.waiting();
  for (const SharedPicture& picture : stream.group()) push(picture);
  needs_key_ = pictures_.empty();
}

void Reader::on_epoch(const SharedEpoch& epoch) {
  epoch_ = epoch;
  dropped_ += pictures_.size();
  pictures_.clear();
  bytes_ = 0;
  stream_told_ = false;
  initialised_ = false;
  end_ = 0;
}

void Reader::on_picture(const SharedPicture& picture) {
  if (needs_key_ && !picture->key) return;
  const bool full =
      pictures_.size() >= kMostPictures || bytes_ + picture->units.size() > kMostBytes;
  const bool late = pictures_.size() >= Stream::kMostKept || bytes_ > Stream::kMostKeptBytes;
  if (!pictures_.empty() && (late || (full && (picture->key || !catches_up_)))) overflow();
  if (needs_key_ && !picture->key) return;
  needs_key_ = false;
  waiting_.reset();
  push(picture);
}

void Reader::push(const SharedPicture& picture) {
  pictures_.push_back(picture);
  bytes_ += picture->units.size();
}

void Reader::overflow() {
  dropped_ += pictures_.size();
  pictures_.clear();
  bytes_ = 0;
  catches_up_ = false;
  needs_key_ = true;
  after_gap_ = true;
  waiting_ = Waiting::loss;
}

void Reader::on_waiting(Waiting reason) {
  waiting_ = reason;
  if (reason == Waiting::loss) after_gap_ = true;
}

std::optional<Message> Reader::next() {
  if (!stream_told_) {
    stream_told_ = true;
    return stream_message();
  }
  if (pictures_.empty()) {
    catches_up_ = false;
    if (!waiting_) return std::nullopt;
    const Waiting reason = *std::exchange(waiting_, std::nullopt);
    return text_message(std::string(R"({"type":"waiting","reason":")") + name_of(reason) + "\"}");
  }
  if (form_ == Form::fmp4 && !initialised_) {
    initialised_ = true;
    return initialisation_message(pictures_.front());
  }
  const SharedPicture picture = pictures_.front();
  pictures_.pop_front();
  bytes_ -= picture->units.size();
  return picture_message(picture);
}

Message Reader::stream_message() const {
  return text_message(R"({"type":"stream","epoch":)" + std::to_string(epoch_->number) +
                      R"(,"kind":")" + name_of(epoch_->kind) + R"(","codec":")" + epoch_->codec +
                      R"(","width":)" + std::to_string(epoch_->width) + R"(,"height":)" +
                      std::to_string(epoch_->height) + "}");
}

Message Reader::initialisation_message(const SharedPicture& before) const {
  Message message;
  append_head(message.head, {MessageHead::What::initialisation, false, false, epoch_->number,
                             before->number, before->arrival});
  message.body = {epoch_, &epoch_->initialisation};
  return message;
}

/// The time of a picture for this browser, which may not have got the one before it.
mp4::Span Reader::span_for(const Picture& picture) const {
  if (end_ == 0 || picture.span.start == end_ || picture.end() > end_ + kLongestPause ||
      picture.end() <= end_) {
    return picture.span;
  }
  return {end_, static_cast<std::uint32_t>(picture.end() - end_)};
}

Message Reader::picture_message(const SharedPicture& picture) {
  constexpr std::size_t kHeads = 16 + 108;
  Message message;
  message.head.reserve(kHeads);
  append_head(message.head,
              {MessageHead::What::picture, picture->key, std::exchange(after_gap_, false),
               picture->epoch, picture->number, picture->arrival});
  message.body = Picture::body(picture, form_);
  if (form_ == Form::fmp4) {
    const mp4::Span span = span_for(*picture);
    end_ = span.start + span.duration;
    mp4::append_fragment_head(message.head, picture->number + 1, span, picture->key,
                              message.body->size());
  }
  return message;
}

}  // namespace nimbus::web
