#include "net/udp_link.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <thread>

#include "base/log.h"
#include "tests/unit/support.h"
#include "tests/unit/udp_end.h"
#include "tests/unit/wall_clock.h"

namespace nimbus {
namespace {

using test::Texts;
using test::UdpEnd;

constexpr std::uint16_t kPort = 40'000;
constexpr std::uint16_t kOtherPort = 40'001;
constexpr std::uint16_t kEarlyPort = 40'002;
constexpr std::uint16_t kSlowPort = 40'003;
constexpr std::uint16_t kOldPort = 40'004;
constexpr std::uint16_t kHastyPort = 40'005;

// Links live as long as the process, also when the tests are repeated.
UdpLink link;
UdpLink other_link;

constexpr int kQueueBytes = 100'000;

bool opened(UdpLink& which, std::uint16_t port) { return which.open({port, kQueueBytes}) == 0; }

bool is_other_link_open() {
  static const bool open = opened(other_link, kOtherPort);
  return open;
}

std::ptrdiff_t send_to_peer(const UdpLink& which, std::string_view text) {
  return which.send_to_peer({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

void print_packet(const Datagram& datagram) {
  const std::string text(datagram.bytes.begin(), datagram.bytes.end());
  log_text("%s from %s:%d", text.c_str(), address_text(datagram.sender.address).data(),
           datagram.sender.port);
}

constexpr LinkCallbacks kPrinting{
    .packet = print_packet, .found = [] { log_text("found"); }, .lost = [] { log_text("lost"); }};

bool is_link_started() {
  static const bool started = opened(link, kPort) && (link.start(kPrinting), true);
  return started;
}

/// The callbacks print what they are called with. The link is silent at the start of every test.
class Link : public testing::Test {
 protected:
  Link() {
    EXPECT_TRUE(is_link_started());
    clock_.set_ms(1000);
  }
  ~Link() override {
    clock_.set_ms(600'000'000);  // past every time of a test
    link.notice_silence();
  }

  /// What print_packet() makes of that text from that end.
  static std::string packet(const std::string& text, const UdpEnd& end) {
    return text + " from 127.0.0.1:" + std::to_string(end.endpoint().port);
  }

  test::Console console_;
  test::WallClock clock_;
  UdpEnd end_;
};

TEST_F(Link, IsFoundByTheFirstDatagramBeforeThatIsHandedOn) {
  end_.send(kPort, "one");
  end_.send(kPort, "two");
  EXPECT_EQ(console_.wait(3), (Texts{"found", packet("one", end_), packet("two", end_)}));
}

TEST_F(Link, IsLostWhenSilentForMoreThanASecond) {
  // The second one goes through the wrap of the clock.
  for (const std::uint32_t start : {2000U, 4'294'966'500U}) {
    clock_.set_ms(start);
    end_.send(kPort, "x");
    EXPECT_EQ(console_.wait(2), (Texts{"found", packet("x", end_)}));
    for (const std::uint32_t age : {0U, 999U, 1000U}) {
      clock_.set_ms(start + age);
      link.notice_silence();
      EXPECT_EQ(console_.texts(), Texts{}) << age;
    }
    clock_.set_ms(start + 1001);
    link.notice_silence();
    EXPECT_EQ(console_.texts(), Texts{"lost"});
    link.notice_silence();
    EXPECT_EQ(console_.texts(), Texts{}) << "it is lost once";
  }
}

TEST_F(Link, EveryDatagramKeepsItLive) {
  for (std::uint32_t now = 2000; now < 6000; now += 1000) {
    clock_.set_ms(now);
    link.notice_silence();
    end_.send(kPort, "x");
    const Texts texts = console_.wait(now == 2000 ? 2 : 1);
    EXPECT_EQ(texts.back(), packet("x", end_));
  }
  link.notice_silence();
  EXPECT_EQ(console_.texts(), Texts{});
}

/// It was seen as live, and is lost before its datagram has renewed the stamp.
TEST_F(Link, IsFoundAgainByADatagramThatCameWhileItWasLost) {
  clock_.set_ms(2000);
  end_.send(kPort, "before");
  EXPECT_EQ(console_.wait(2), (Texts{"found", packet("before", end_)}));
  static std::atomic<bool> watched;
  watched = false;
  clock_.set([] {
    // The reading of the receive thread; the one of the main thread comes from within.
    if (!watched.exchange(true)) link.notice_silence();
    return timespec{5, 0};
  });
  end_.send(kPort, "meanwhile");
  EXPECT_EQ(console_.wait(3), (Texts{"lost", "found", packet("meanwhile", end_)}));
}

/// Its first datagram again comes while the loss is being told.
TEST_F(Link, IsNotFoundBeforeItsLossHasBeenTold) {
  static UdpLink slow_link;
  static const UdpEnd* bridge;
  bridge = &end_;
  LinkCallbacks callbacks = kPrinting;
  callbacks.lost = [] {
    bridge->send(kSlowPort, "meanwhile");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    log_text("lost");
  };
  static const bool started = opened(slow_link, kSlowPort) && (slow_link.start(callbacks), true);
  ASSERT_TRUE(started);
  end_.send(kSlowPort, "one");
  EXPECT_EQ(console_.wait(2), (Texts{"found", packet("one", end_)}));
  clock_.set_ms(9000);
  slow_link.notice_silence();
  EXPECT_EQ(console_.wait(2), (Texts{packet("meanwhile", end_), "lost"}));
  end_.send(kSlowPort, "two");
  EXPECT_EQ(console_.wait(2), (Texts{"found", packet("two", end_)}));
  clock_.set_ms(20'000);
  slow_link.notice_silence();  // when the tests are repeated
}

/// However long it takes to tell that it was found.
TEST_F(Link, IsNotLostBeforeItsFindingHasBeenTold) {
  static UdpLink hasty_link;
  static test::WallClock* clock;
  clock = &clock_;
  LinkCallbacks callbacks = kPrinting;
  callbacks.found = [] {
    clock->set_ms(9000);
    hasty_link.notice_silence();
    log_text("found");
  };
  static const bool started = opened(hasty_link, kHastyPort) && (hasty_link.start(callbacks), true);
  ASSERT_TRUE(started);
  end_.send(kHastyPort, "x");
  EXPECT_EQ(console_.wait(2), (Texts{"found", packet("x", end_)}));
  clock_.set_ms(20'000);
  hasty_link.notice_silence();
  EXPECT_EQ(console_.wait(1), Texts{"lost"});
}

TEST_F(Link, AnswersTheSenderOfTheLastDatagram) {
  const UdpEnd later;
  end_.send(kPort, "x");
  EXPECT_EQ(console_.wait(2).size(), 2U);
  EXPECT_EQ(send_to_peer(link, "first"), 5);
  EXPECT_EQ(end_.receive(), "first");
  later.send(kPort, "y");
  EXPECT_EQ(console_.wait(1), Texts{packet("y", later)});
  EXPECT_EQ(send_to_peer(link, "second"), 6);
  EXPECT_EQ(later.receive(), "second");
  clock_.set_ms(9000);
  link.notice_silence();
  EXPECT_EQ(send_to_peer(link, "third"), 5) << "also when it has been lost";
  EXPECT_EQ(later.receive(), "third");
}

// --- What has waited too long ------------------------------------------------------------------

/// A link of their own, which knows no other monotonic clock than one that stands. How long they
/// have waited is up to that one: the wall clock was set far back since.
class OldDatagrams : public Link {
 protected:
  OldDatagrams() {
    static const bool started = opened(link_, kOldPort) && (link_.start(kPrinting), true);
    EXPECT_TRUE(started);
    wait_ms(0);
    send("fresh");
    EXPECT_EQ(console_.wait(2), (Texts{"found", packet("fresh", end_)}));
  }
  /// qemu's emulation of a processor alone knows no time stamps.
  void SetUp() override {
    const int on = 1;
    if (setsockopt(link_.socket(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) != 0) {
      GTEST_SKIP() << "this system gives datagrams no time stamp";
    }
  }
  ~OldDatagrams() override {
    clock_.set_ms(600'000'000);
    link_.notice_silence();
    test::monotonic_stands_at = 0;
  }

  void send(const char* text) const { end_.send(kOldPort, text); }

  /// What comes from here on seems to have waited for so long when it is read.
  static void wait_ms(std::int64_t time) { test::monotonic_stands_at = kMoment + time * 1'000'000; }

  static inline UdpLink link_;

  void expect_told() {
    const Texts said = console_.wait(1);
    ASSERT_EQ(said.size(), 1U);
    constexpr std::string_view kBefore = "Too much on port 40004: ";
    constexpr std::string_view kBehind = " datagrams waited for more than 2 s and were dropped\n";
    std::string_view text = said[0];
    ASSERT_TRUE(text.starts_with(kBefore) && text.ends_with(kBehind)) << text;
    text.remove_prefix(kBefore.size());
    text.remove_suffix(kBehind.size());
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(text.find_first_not_of("0123456789"), std::string_view::npos) << text;
  }

 private:
  static constexpr std::int64_t kMoment = 1000 * test::kNsPerSecond;
};

TEST_F(OldDatagrams, AreDropped) {
  wait_ms(1900);
  send("x");
  EXPECT_EQ(console_.wait(1), Texts{packet("x", end_)});
  wait_ms(2100);
  send("y");
  expect_told();
  wait_ms(0);
  send("z");
  EXPECT_EQ(console_.wait(1), Texts{packet("z", end_)});
}

TEST_F(OldDatagrams, KeepTheirLinkLive) {
  wait_ms(100'000);
  clock_.set_ms(2000);
  send("x");
  expect_told();
  clock_.set_ms(2500);
  link_.notice_silence();
  EXPECT_EQ(console_.texts(), Texts{});
}

/// Also when it is told at the end of a second.
TEST_F(OldDatagrams, AreToldOfAtMostOnceInTenSeconds) {
  wait_ms(50'900);
  send("x");
  expect_told();
  for (const std::int64_t later : {1, 9200}) {
    wait_ms(50'900 + later);
    send("y");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(console_.texts(), Texts{}) << later;
  }
  wait_ms(50'900 + 11'000);
  send("z");
  expect_told();
}

// --- Before the start, and on other ports ------------------------------------------------------

/// What comes between the opening of a link and its start is found, and handed on, at the start.
TEST(EarlyLink, DatagramsWaitForTheStart) {
  test::Console console;
  static UdpLink early_link;
  static const bool open = opened(early_link, kEarlyPort);
  ASSERT_TRUE(open);
  const UdpEnd end;
  end.send(kEarlyPort, "one");
  end.send(kEarlyPort, "two");
  static bool is_started = false;  // when the tests are repeated
  if (!is_started) early_link.start(kPrinting);
  const Texts texts = console.wait(is_started ? 2 : 3);
  const std::string from = " from 127.0.0.1:" + std::to_string(end.endpoint().port);
  EXPECT_EQ(texts.front() == "found", !is_started);
  EXPECT_EQ(Texts(texts.end() - 2, texts.end()), (Texts{"one" + from, "two" + from}));
  is_started = true;
}

TEST(OtherLink, WithoutAPeerSendsNothing) {
  ASSERT_TRUE(is_other_link_open());
  errno = 0;
  EXPECT_EQ(send_to_peer(other_link, "x"), -1);
  EXPECT_EQ(errno, 0) << "no system call";
}

TEST(OtherLink, APortIsBoundOnce) {
  ASSERT_TRUE(is_link_started());
  static UdpLink late_link;
  EXPECT_FALSE(opened(late_link, kPort));
}

}  // namespace
}  // namespace nimbus
