// From datagrams to pictures: where they begin and end, what a loss costs, what a browser gets.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <tuple>

#include "tests/unit/web_streams.h"
#include "tools/web/annex_b.h"
#include "tools/web/rate.h"
#include "tools/web/reader.h"

namespace nimbus::web {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kPicture{40};

/// A bridge that sends a recorded stream, again and again, on a clock of its own.
class Bridge {
 public:
  explicit Bridge(const std::string& name, Coding coding = Coding::h264)
      : pictures_(access_units(recorded(name), coding)) {}

  Listener listener;
  Stream stream{listener};
  std::size_t datagram = 400;
  milliseconds apart{2};  ///< between two datagrams of a picture

  /// Sends so many pictures, less the datagrams for which `lost` is true.
  template <typename Lost>
  void send(std::size_t count, Lost lost) {
    for (; count > 0; --count, ++next_) {
      const Time due = now_ + kPicture;
      for (const Buffer& piece : cut(pictures_[next_ % pictures_.size()], datagram)) {
        pass(apart);
        if (!lost()) stream.video(piece, number_, now_);
        ++number_;
      }
      pass(due - now_);
    }
  }
  void send(std::size_t count) {
    send(count, [] { return false; });
  }

  void pass(Clock::duration time) {
    const Time end = now_ + time;
    while (stream.deadline() && *stream.deadline() <= end) {
      now_ = std::max(now_, *stream.deadline());
      stream.pass_time(now_);
    }
    now_ = std::max(now_, end);
  }

  std::vector<Buffer> pictures_;
  std::size_t next_ = 0;
  std::uint32_t number_ = 0;
  Time now_ = Time{} + seconds(100);
};

// --- Where pictures begin and end --------------------------------------------------------------

TEST(WebStream, PicturesOfARecordedStream) {
  EXPECT_EQ(access_units(recorded("zerolatency.h264"), Coding::h264).size(), 15U);
  EXPECT_EQ(access_units(recorded("slices.h264"), Coding::h264).size(), 15U);
  EXPECT_EQ(access_units(recorded("b_pictures.h264"), Coding::h264).size(), 15U);
  EXPECT_EQ(access_units(recorded("hevc.h265"), Coding::h265).size(), 15U);
}

class WebStreamCut : public testing::TestWithParam<std::size_t> {};

TEST_P(WebStreamCut, NoPictureIsLostOrTorn) {
  for (const char* const name : {"zerolatency.h264", "slices.h264"}) {
    Bridge bridge(name);
    bridge.datagram = GetParam();
    bridge.apart = milliseconds(GetParam() < 50 ? 0 : 1);
    bridge.send(90);
    bridge.pass(seconds(1));
    EXPECT_EQ(bridge.listener.pictures.size(), 90U) << name;
    EXPECT_EQ(bridge.stream.counts().torn, 0U) << name;
    EXPECT_EQ(bridge.stream.counts().discarded, 0U) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, WebStreamCut,
                         testing::Values(1, 2, 3, 7, 64, 188, 400, 1400, 100'000));

TEST(WebStream, SeveralPicturesInOneDatagram) {
  Bridge bridge("zerolatency.h264");
  Buffer all;
  for (const Buffer& picture : bridge.pictures_) append(all, picture);
  bridge.stream.video(all, 0, bridge.now_);
  bridge.pass(seconds(1));
  EXPECT_EQ(bridge.listener.pictures.size(), 15U);
}

/// Once the bridge's way is known, a picture is there with its last datagram.
TEST(WebStream, AShortDatagramEndsItsPicture) {
  Bridge bridge("zerolatency.h264");
  bridge.send(30);
  const auto pieces = cut(bridge.pictures_[0], bridge.datagram);
  const std::size_t before = bridge.listener.pictures.size();
  ASSERT_GT(pieces.size(), 1U);
  for (const Buffer& piece : pieces) {
    EXPECT_EQ(bridge.listener.pictures.size(), before);
    bridge.stream.video(piece, bridge.number_++, bridge.now_);
  }
  EXPECT_EQ(bridge.listener.pictures.size(), before + 1);
}

/// A bridge that cuts where it likes is found out: silence ends its pictures.
TEST(WebStream, SilenceEndsThePicturesOfAnIrregularBridge) {
  Bridge bridge("zerolatency.h264");
  std::size_t size = 100;
  for (int i = 0; i < 100; ++i) {
    bridge.datagram = size = size * 7 % 390 + 60;
    bridge.send(1);
  }
  bridge.pass(seconds(1));
  EXPECT_GE(bridge.listener.pictures.size(), 95U);
  EXPECT_EQ(bridge.stream.counts().torn, 0U);
}

/// What comes too late for its picture costs that group of pictures, and makes the next guess more
/// careful.
TEST(WebStream, ATornPictureIsNotedAndTheNextKeyPictureMends) {
  Bridge bridge("zerolatency.h264");
  bridge.send(31);
  bridge.datagram = 150;  // all at once, smaller pieces: each looks like an end
  bridge.send(10);
  EXPECT_GE(bridge.stream.counts().torn, 1U);
  const std::size_t before = bridge.listener.pictures.size();
  bridge.send(50);
  EXPECT_GE(bridge.listener.pictures.size(), before + 49);
  EXPECT_LE(bridge.stream.counts().torn, 3U);
}

TEST(WebStream, WhatIsNoPictureIsNotKept) {
  Listener listener;
  Stream stream(listener);
  Bridge bridge("zerolatency.h264");
  stream.video(bridge.pictures_[0], 0, bridge.now_);
  const Buffer nothing(60'000, 0x55);
  for (std::uint32_t i = 1; i < 400; ++i) stream.video(nothing, i, bridge.now_);
  stream.pass_time(bridge.now_ + seconds(1));
  EXPECT_LE(listener.pictures.size(), 2U);
  for (const SharedPicture& picture : listener.pictures) {
    EXPECT_LE(picture->units.size(), Assembler::kLongest);
  }
}

// --- What kind of stream it is -----------------------------------------------------------------

Buffer packets(std::size_t count) {
  Buffer made(count * 188, 0);
  for (std::size_t i = 0; i < made.size(); i += 188) made[i] = 0x47;
  return made;
}

TEST(WebStream, KindsAreNamed) {
  Bridge bridge("hevc.h265", Coding::h265);
  bridge.send(12);
  ASSERT_EQ(bridge.listener.epochs.size(), 1U);
  EXPECT_EQ(bridge.listener.epochs[0]->kind, Kind::h265);
  EXPECT_EQ(bridge.listener.epochs[0]->codec.substr(0, 7), "hvc1.1.");
  EXPECT_EQ(bridge.listener.epochs[0]->width, 64U);
  EXPECT_EQ(bridge.listener.epochs[0]->height, 48U);
  EXPECT_GE(bridge.listener.pictures.size(), 11U);
  EXPECT_TRUE(bridge.listener.pictures[0]->key);

  Listener transport;
  Stream stream(transport);
  stream.video(packets(7), 0, bridge.now_);
  ASSERT_EQ(transport.epochs.size(), 1U);
  EXPECT_EQ(transport.epochs[0]->kind, Kind::mpeg_ts);

  Listener strange;
  Stream other(strange);
  for (std::uint32_t i = 0; i < 300; ++i) other.video(Buffer(1000, 0xAA), i, bridge.now_);
  ASSERT_EQ(strange.epochs.size(), 1U);
  EXPECT_EQ(strange.epochs[0]->kind, Kind::unknown);
}

TEST(WebStream, AnotherCodingIsSeenWhileTheStreamPlays) {
  Bridge bridge("hevc.h265", Coding::h265);
  bridge.send(12);
  for (const auto& [name, coding, kind] : {std::tuple{"zerolatency.h264", Coding::h264, Kind::h264},
                                           std::tuple{"hevc.h265", Coding::h265, Kind::h265}}) {
    bridge.pictures_ = access_units(recorded(name), coding);
    bridge.next_ = 0;
    bridge.send(12);
    ASSERT_EQ(bridge.listener.epochs.back()->kind, kind) << name;
    EXPECT_EQ(bridge.listener.pictures.back()->epoch, bridge.listener.epochs.back()->number);
  }
  bridge.stream.video(packets(1), bridge.number_++, bridge.now_);
  EXPECT_EQ(bridge.listener.epochs.back()->kind, Kind::h265) << "by chance";
  bridge.stream.video(packets(7), bridge.number_++, bridge.now_);
  EXPECT_EQ(bridge.listener.epochs.back()->kind, Kind::mpeg_ts);
  EXPECT_EQ(bridge.listener.epochs.size(), 4U);
}

TEST(WebStream, AStreamThatBeginsBetweenTwoKeyPicturesWaitsForOne) {
  Bridge bridge("zerolatency.h264");
  bridge.next_ = 2;
  bridge.send(3);
  EXPECT_TRUE(bridge.listener.pictures.empty());
  EXPECT_EQ(bridge.stream.waiting(), Waiting::key);
  bridge.send(2);
  ASSERT_FALSE(bridge.listener.pictures.empty());
  EXPECT_TRUE(bridge.listener.pictures[0]->key);
}

TEST(WebStream, OtherParametersAreAnotherEpoch) {
  Bridge bridge("zerolatency.h264");
  bridge.send(10);
  bridge.pictures_ = access_units(recorded("slices.h264"), Coding::h264);
  bridge.next_ = 0;
  bridge.send(10);
  ASSERT_EQ(bridge.listener.epochs.size(), 2U);
  EXPECT_EQ(bridge.listener.epochs[0]->codec.substr(0, 7), "avc1.42");
  EXPECT_EQ(bridge.listener.epochs[1]->codec.substr(0, 7), "avc1.4d");
  EXPECT_EQ(bridge.listener.pictures.back()->epoch, bridge.listener.epochs[1]->number);
}

// --- Losses ------------------------------------------------------------------------------------

/// No picture is passed on that lacks one before it, whatever is lost.
TEST(WebStream, LossesDiscardUpToTheNextKeyPicture) {
  Bridge bridge("zerolatency.h264");
  unsigned random = 1;
  bridge.send(300, [&random] {
    random = random * 1'103'515'245 + 12'345;
    return (random >> 16U) % 50 == 0;
  });
  bridge.pass(seconds(1));
  const auto& pictures = bridge.listener.pictures;
  EXPECT_GT(bridge.stream.counts().discarded, 0U);
  EXPECT_GT(pictures.size(), 150U);
  // Each group comes from its key picture on, without a hole: its bytes are the recorded ones.
  Bridge lossless("zerolatency.h264");
  lossless.send(30);
  const auto& whole = lossless.listener.pictures;
  const auto is_like = [](const SharedPicture& one) {
    return [&one](const SharedPicture& other) { return one->units == other->units; };
  };
  auto before = whole.begin();
  for (const SharedPicture& picture : pictures) {
    const auto found = std::find_if(whole.begin(), whole.end(), is_like(picture));
    ASSERT_NE(found, whole.end()) << picture->number << " is torn";
    EXPECT_TRUE(picture->key || found == before + 1) << picture->number;
    before = found;
  }
}

/// What is kept for who joins has an end where key pictures have none.
TEST(WebStream, NoMoreIsKeptThanABrowserCanCatchUpWith) {
  Bridge bridge("zerolatency.h264");
  bridge.send(2);
  bridge.pictures_ = {bridge.pictures_[1]};
  bridge.send(590);
  EXPECT_GT(bridge.stream.group().size(), 580U);
  bridge.send(20);
  EXPECT_TRUE(bridge.stream.group().empty());
  EXPECT_GT(bridge.listener.pictures.size(), 600U) << "who is there already gets all of them";
}

TEST(WebStream, ALossOfSomethingElseCostsNothing) {
  Bridge bridge("zerolatency.h264");
  bridge.send(30);
  for (int i = 0; i < 40; ++i) {
    ++bridge.number_;  // a status message that did not come
    bridge.send(1);
  }
  EXPECT_EQ(bridge.stream.counts().discarded, 0U);
  EXPECT_EQ(bridge.stream.counts().gaps, 40U);
}

TEST(WebStream, NumbersUsedTwiceAreNoLoss) {
  FrameNumbers numbers;
  EXPECT_EQ(numbers.take(10), 0U);
  EXPECT_EQ(numbers.take(10), 0U);
  EXPECT_EQ(numbers.take(12), 0U);
  EXPECT_EQ(numbers.take(14), 1U);
  EXPECT_EQ(numbers.take(13), 0U);
  EXPECT_EQ(numbers.take(15), 0U);
  EXPECT_EQ(numbers.take(20), 4U);
  EXPECT_EQ(numbers.take(20), 0U);
  for (std::uint32_t number = 21; number < 26; ++number) EXPECT_EQ(numbers.take(number), 0U);
  EXPECT_EQ(numbers.take(27), 1U) << "the one that came twice is long ago";
}

TEST(WebStream, RatesAreThoseOfWholeSeconds) {
  Rate<2> rate;
  const auto at = [](int ms) { return Time{} + milliseconds(ms); };
  for (int ms = 100'000; ms < 103'500; ms += 100) rate.add(1, at(ms));
  EXPECT_EQ(rate.sum(at(103'900)), 20U);
  EXPECT_EQ(rate.sum(at(104'000)), 15U);
  EXPECT_EQ(rate.sum(at(105'999)), 5U);
  EXPECT_EQ(rate.sum(at(200'000)), 0U);
}

TEST(WebStream, ARestartOfTheServiceIsALoss) {
  FrameNumbers numbers;
  EXPECT_EQ(numbers.take(500'000), 0U);
  EXPECT_EQ(numbers.take(3), 1U);
  EXPECT_EQ(numbers.take(4), 0U);
  EXPECT_EQ(numbers.take(UINT32_MAX), 0U);  // late, from before
}

TEST(WebStream, SilenceIsTold) {
  Bridge bridge("zerolatency.h264");
  bridge.send(10);
  bridge.now_ += seconds(2);
  bridge.stream.pass_time(bridge.now_);
  EXPECT_EQ(bridge.stream.waiting(), Waiting::silence);
  const std::size_t before = bridge.listener.pictures.size();
  bridge.send(2);
  EXPECT_GT(bridge.listener.pictures.size(), before);
  EXPECT_EQ(bridge.stream.waiting(), Waiting::no);
}

// --- Times -------------------------------------------------------------------------------------

TEST(WebStream, PicturesFollowEachOtherWithoutAHole) {
  Bridge bridge("zerolatency.h264");
  bridge.send(20);
  bridge.now_ += seconds(9);
  bridge.send(20);
  const auto& pictures = bridge.listener.pictures;
  for (std::size_t i = 1; i < pictures.size(); ++i) {
    EXPECT_EQ(pictures[i]->span.start, pictures[i - 1]->end());
    EXPECT_GE(pictures[i]->span.duration, 1000U);
    EXPECT_NEAR(static_cast<double>(pictures[i]->end()), static_cast<double>(pictures[i]->arrival),
                2000);
  }
}

// --- A browser ---------------------------------------------------------------------------------

struct Got {
  std::vector<std::string> texts;
  std::vector<std::uint32_t> numbers;
  std::vector<std::uint8_t> flags;
  int initialisations = 0;
};

Got read_all(Reader& reader, std::size_t most = 10'000) {
  Got got;
  for (; most > 0; --most) {
    const auto message = reader.next();
    if (!message) break;
    if (message->text) {
      got.texts.emplace_back(message->head.begin(), message->head.end());
    } else if (message->head[0] == 1) {
      ++got.initialisations;
    } else {
      got.numbers.push_back(message->head[4] + 256U * message->head[5]);
      got.flags.push_back(message->head[1]);
    }
  }
  return got;
}

TEST(WebReader, WhoJoinsGetsEverythingSinceTheKeyPicture) {
  Bridge bridge("zerolatency.h264");
  bridge.send(14);
  Reader reader(Form::fmp4, bridge.stream);
  const Got got = read_all(reader);
  EXPECT_EQ(got.texts.size(), 1U);
  EXPECT_NE(got.texts[0].find(R"("type":"stream","epoch":1,"kind":"h264","codec":"avc1.42)"),
            std::string::npos);
  EXPECT_EQ(got.initialisations, 1);
  ASSERT_FALSE(got.numbers.empty());
  EXPECT_EQ(got.numbers.front() % 5, 0U);
  EXPECT_EQ(got.flags.front(), 1U);
  EXPECT_EQ(got.numbers.back(), bridge.listener.pictures.back()->number);

  Reader raw(Form::raw, bridge.stream);
  EXPECT_EQ(read_all(raw).initialisations, 0);
}

TEST(WebReader, WhoIsSlowGoesOnWithTheNextKeyPicture) {
  Bridge bridge("zerolatency.h264");
  bridge.send(11);
  Reader reader(Form::fmp4, bridge.stream);
  read_all(reader);
  std::size_t taken = bridge.listener.pictures.size();
  for (int i = 0; i < 20; ++i) {
    bridge.send(1);
    for (; taken < bridge.listener.pictures.size(); ++taken) {
      reader.on_picture(bridge.listener.pictures[taken]);
    }
    EXPECT_LE(reader.depth(), Reader::kMostPictures);
  }
  EXPECT_GT(reader.dropped(), 0U);
  const Got got = read_all(reader);
  ASSERT_FALSE(got.numbers.empty());
  EXPECT_EQ(got.numbers.front() % 5, 0U);
  EXPECT_EQ(got.flags.front(), 3U);
  for (std::size_t i = 1; i < got.numbers.size(); ++i) {
    EXPECT_EQ(got.numbers[i], got.numbers[i - 1] + 1);
  }
}

/// Large pictures fill it, too, few as they are.
TEST(WebReader, WhatWaitsIsLimitedInBytes) {
  Bridge bridge("zerolatency.h264");
  bridge.send(11);
  Reader reader(Form::raw, bridge.stream);
  read_all(reader);
  for (std::uint32_t i = 0; i < Reader::kMostPictures; ++i) {
    auto picture = std::make_shared<Picture>();
    picture->number = 100 + i;
    picture->key = true;
    picture->units.resize(Reader::kMostBytes / 2);
    reader.on_picture(picture);
    EXPECT_LE(reader.depth(), 2U);
  }
  EXPECT_EQ(reader.dropped(), Reader::kMostPictures - reader.depth());
}

/// One that joins and hardly reads must not keep everything where no key picture comes.
TEST(WebReader, WhoNeverCatchesUpIsGivenUp) {
  Bridge bridge("zerolatency.h264");
  bridge.send(2);
  for (const std::size_t size : {std::size_t{100}, std::size_t{1'000'000}}) {
    Reader reader(Form::raw, bridge.stream);
    ASSERT_GT(reader.depth(), 0U);
    auto picture = std::make_shared<Picture>();
    picture->units.resize(size);
    for (int i = 0; i < 1000; ++i) {
      reader.on_picture(picture);
      ASSERT_LE(reader.depth(), Stream::kMostKept);
      ASSERT_LE(reader.depth() * size, Stream::kMostKeptBytes + 4 * size);
    }
    EXPECT_GT(reader.dropped(), 0U);
    EXPECT_EQ(reader.depth(), 0U) << "it waits for a key picture";
  }
}

TEST(WebReader, WhoWaitsIsToldWhy) {
  Listener listener;
  Stream stream(listener);
  Reader reader(Form::fmp4, stream);
  Got got = read_all(reader);
  ASSERT_EQ(got.texts.size(), 2U);
  EXPECT_NE(got.texts[0].find(R"("kind":"none")"), std::string::npos);
  EXPECT_EQ(got.texts[1], R"({"type":"waiting","reason":"key"})");
  reader.on_waiting(Waiting::silence);
  got = read_all(reader);
  ASSERT_EQ(got.texts.size(), 1U);
  EXPECT_EQ(got.texts[0], R"({"type":"waiting","reason":"silence"})");
}

/// The time in a fragment: start and duration.
std::pair<std::uint64_t, std::uint64_t> time_of(const Message& message) {
  const auto number = [&message](std::size_t at, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value = value << 8U | message.head[at + i];
    return value;
  };
  constexpr std::size_t kStart = 16 + 8 + 16 + 8 + 16 + 12;
  return {number(kStart, 8), number(kStart + 8 + 20, 4)};
}

/// Also for a browser that has missed pictures, its fragments leave no hole.
TEST(WebReader, TimesAreWithoutAHoleForEachBrowser) {
  Bridge bridge("zerolatency.h264");
  bridge.send(30);
  Reader reader(Form::fmp4, bridge.stream);
  std::uint64_t end = 0;
  std::size_t taken = bridge.listener.pictures.size();
  const auto read = [&reader, &end] {
    while (const auto message = reader.next()) {
      if (message->text || message->head[0] == 1) continue;
      const auto [start, duration] = time_of(*message);
      EXPECT_TRUE(end == 0 || start == end);
      end = start + duration;
    }
  };
  for (int i = 0; i < 100; ++i) {
    bridge.send(1);
    for (; taken < bridge.listener.pictures.size(); ++taken) {
      reader.on_picture(bridge.listener.pictures[taken]);
    }
    if (i % 20 < 4) read();
  }
  EXPECT_GT(reader.dropped(), 0U);
  EXPECT_NEAR(static_cast<double>(end), static_cast<double>(micros_of(bridge.now_)), 2e6);
}

TEST(WebReader, AnotherEpochBeginsWithItsInitialisation) {
  Bridge bridge("zerolatency.h264");
  bridge.send(8);
  Reader reader(Form::fmp4, bridge.stream);
  read_all(reader);
  auto epoch = std::make_shared<Epoch>(*bridge.stream.epoch());
  epoch->number = 9;
  reader.on_epoch(epoch);
  auto picture = std::make_shared<Picture>(*bridge.listener.pictures[0]);
  reader.on_picture(picture);
  const Got got = read_all(reader);
  ASSERT_EQ(got.texts.size(), 1U);
  EXPECT_NE(got.texts[0].find(R"("epoch":9)"), std::string::npos);
  EXPECT_EQ(got.initialisations, 1);
  EXPECT_EQ(got.numbers.size(), 1U);
}

}  // namespace
}  // namespace nimbus::web
