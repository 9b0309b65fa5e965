// Any datagrams of video: the pictures that come of them are whole, and their times without a hole;
// a browser that reads now and then never has more waiting than it may.
//
// Each datagram stands behind two bytes: what happens before it, and its length.
#include <cstddef>
#include <cstdint>

#include "tests/fuzz/invariants.h"
#include "tools/web/annex_b.h"
#include "tools/web/reader.h"

namespace {

using namespace nimbus::web;
using nimbus::fuzz::require;

struct Listener final : StreamListener {
  Reader* reader = nullptr;
  std::uint64_t end = 0;
  std::uint32_t epoch = 0;

  void on_epoch(const SharedEpoch& one) override {
    require(one->number == ++epoch);
    require((one->kind == Kind::h264 || one->kind == Kind::h265) != one->initialisation.empty());
    if (reader != nullptr) reader->on_epoch(one);
  }
  void on_picture(const SharedPicture& picture) override {
    require(picture->epoch == epoch && !units_of(picture->units).empty());
    require(picture->span.duration >= 1000 && (end == 0 || picture->span.start >= end));
    end = picture->end();
    require(Picture::body(picture, Form::fmp4)->size() == picture->units.size());
    if (reader != nullptr) reader->on_picture(picture);
  }
  void on_waiting(Waiting reason) override {
    if (reader != nullptr) reader->on_waiting(reason);
  }
};

void read_all(Reader& reader) {
  for (int i = 0; i < 2000; ++i) {
    const auto message = reader.next();
    if (!message) return;
    require(!message->head.empty());
  }
  require(false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Listener listener;
  Stream stream(listener);
  Reader reader(size % 2 == 0 ? Form::fmp4 : Form::raw, stream);
  listener.reader = &reader;
  Time now = Time{} + std::chrono::seconds(1000);
  std::uint32_t number = 0;
  while (size >= 2) {
    const std::uint8_t before = bytes[0];
    const std::size_t length = std::min<std::size_t>(bytes[1], size - 2);
    number += (before & 3U) == 3 ? 2 : 1;
    now += std::chrono::milliseconds((before & 4U) != 0 ? 150 : 1);
    if ((before & 4U) != 0) stream.pass_time(now);
    if ((before & 8U) != 0) read_all(reader);
    stream.video({bytes + 2, length}, number, now);
    bytes += 2 + length;
    size -= 2 + length;
  }
  stream.pass_time(now + std::chrono::seconds(2));
  read_all(reader);
  return 0;
}
