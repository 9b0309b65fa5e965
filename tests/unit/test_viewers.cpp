#include "net/viewers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "display/region.h"
#include "tests/unit/support.h"
#include "tests/unit/udp_end.h"
#include "tests/unit/wall_clock.h"

namespace nimbus {
namespace {

using namespace std::string_literals;
using test::Texts;

using Speed = std::array<int, 4>;

/// The speed messages that were handed on.
std::vector<Speed> speeds;

Endpoint endpoint(const char* address, std::uint16_t port) { return {inet_addr(address), port}; }

const Endpoint kViewer = endpoint("127.0.0.1", 1000);

/// The n-th of many viewers, on one of two hosts.
Endpoint viewer_number(std::size_t n) {
  return endpoint(n % 2 == 0 ? "127.0.0.1" : "192.168.1.20", static_cast<std::uint16_t>(1000 + n));
}

void receive(std::string_view datagram, Endpoint sender = kViewer) {
  handle_viewer_datagram(
      {{reinterpret_cast<const std::uint8_t*>(datagram.data()), datagram.size()}, sender});
}

/// A frame with that payload. The header holds what is to be ignored.
std::string frame(const std::string& payload) {
  return "\x42\xFF\1\2\3\4\5\6\7\x08\x09\x0A" + payload;
}

/// The table, empty at the start of every test.
class Viewers : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    // The link stays open as long as the process, also when the tests are repeated.
    static const bool started = start();
    ASSERT_TRUE(started);
  }

  Viewers() {
    static_cast<void>(display_region()->command_mailbox.take());
    speeds.clear();
  }

  void TearDown() override {
    for (const auto viewer : registered_) receive(frame("\1"), viewer);
    EXPECT_EQ(count(), 0);
  }

  int add(Endpoint viewer, bool data_only = false) {
    registered_.push_back(viewer);
    return register_viewer(viewer, data_only);
  }

  /// The number of viewers, as the display learns it after the pass of each second.
  static int count() {
    check_viewer_timeouts();
    return display_region()->viewer_count;
  }

  static std::string command() {
    return std::string(display_region()->command_mailbox.take().view());
  }

  test::Console console_;

 private:
  static bool start() {
    std::filesystem::remove_all("/dev/shm/hud_mem");
    if (map_display_region() == nullptr) return false;
    test::Console console;
    const int result = open_viewers_link([](int mode, int pan, int tilt, int roll) {
      speeds.push_back({mode, pan, tilt, roll});
    });
    EXPECT_EQ(console.texts(), (Texts{"Init network... ", "done\n"}));
    return result == 0;
  }

  std::vector<Endpoint> registered_;
};

// --- The table ---------------------------------------------------------------------------------

TEST_F(Viewers, AViewerIsNewOnce) {
  EXPECT_EQ(add(kViewer), 1);
  EXPECT_EQ(add(kViewer), 0);
  EXPECT_EQ(add(kViewer, true), 0) << "a change of its mode is no new viewer";
  EXPECT_EQ(add(kViewer), 0);
  EXPECT_EQ(count(), 1);
}

TEST_F(Viewers, AViewerIsAnAddressAndAPort) {
  EXPECT_EQ(add(endpoint("127.0.0.1", 1000)), 1);
  EXPECT_EQ(add(endpoint("127.0.0.1", 1001)), 1);
  EXPECT_EQ(add(endpoint("127.0.0.2", 1000)), 1);
  EXPECT_EQ(add(endpoint("127.0.0.1", 65'535), true), 1);
  EXPECT_EQ(add(endpoint("127.0.0.1", 65'535)), 0);
  EXPECT_EQ(count(), 4);
}

TEST_F(Viewers, TheTableHasTenSlots) {
  for (std::size_t n = 0; n < 10; ++n) EXPECT_EQ(add(viewer_number(n), n % 3 == 0), 1) << n;
  EXPECT_EQ(count(), 10);
  EXPECT_EQ(add(viewer_number(10)), 0);
  EXPECT_EQ(add(viewer_number(10), true), 0);
  for (std::size_t n = 0; n < 10; ++n) EXPECT_EQ(add(viewer_number(n)), 0) << n;
  EXPECT_EQ(add(viewer_number(10)), 0) << "served only when a slot is free";
  EXPECT_EQ(count(), 10);
}

TEST_F(Viewers, AFreedSlotIsTakenByTheNext) {
  for (std::size_t n = 0; n < 10; ++n) ASSERT_EQ(add(viewer_number(n)), 1);
  for (const std::size_t leaving : {std::size_t{4}, std::size_t{0}, std::size_t{9}}) {
    const std::size_t newcomer = 10 + leaving;
    ASSERT_EQ(add(viewer_number(newcomer)), 0);
    receive(frame("\1"), viewer_number(leaving));
    EXPECT_EQ(count(), 9);
    EXPECT_EQ(add(viewer_number(newcomer)), 1);
    EXPECT_EQ(add(viewer_number(leaving)), 0) << "its slot has gone to the newcomer";
  }
}

TEST_F(Viewers, ASenderWithoutAPortOrAnAddressIsRefused) {
  for (const Endpoint nobody : {endpoint("127.0.0.1", 0), endpoint("0.0.0.0", 1000)}) {
    EXPECT_EQ(add(nobody), 0);
    receive(frame("\0\0"s), nobody);
  }
  EXPECT_EQ(count(), 0);
  for (std::size_t n = 0; n < 10; ++n) EXPECT_EQ(add(viewer_number(n)), 1) << "it takes no slot";
  EXPECT_EQ(console_.texts(), Texts{});
}

/// A free slot has no address and no port; nor is it anybody's who has none.
TEST_F(Viewers, NobodyLeavesAFreeSlot) {
  for (const char* const address : {"0.0.0.0", "127.0.0.1"}) {
    receive(frame("\1"), endpoint(address, 0));
    receive(frame("\1"), endpoint(address, 1));
    EXPECT_EQ(console_.texts(), Texts{}) << address;
  }
}

/// Between the look that finds a viewer silent and the end of its tenancy, it may leave and another
/// one come.
TEST_F(Viewers, ANewcomerKeepsTheSlotOfTheOneWhoLeft) {
  for (const Endpoint newcomer : {endpoint("127.0.0.2", 1000), kViewer}) {
    ViewerClient slot{};
    slot.fill(kViewer);
    const std::uint32_t seen = slot.tenancy;
    EXPECT_TRUE(slot.release(seen));
    EXPECT_FALSE(slot.release(seen)) << "it has ended";
    EXPECT_EQ(slot.viewer().port, 0U);
    slot.fill(newcomer);
    EXPECT_FALSE(slot.release(seen));
    EXPECT_EQ(slot.viewer().address, newcomer.address);
    EXPECT_EQ(slot.viewer().port, newcomer.port);
  }
}

/// The same in the pass of each second, which reads the clock between the two.
TEST_F(Viewers, ANewcomerIsNotTakenForTheSilentOneWhoLeft) {
  test::WallClock clock;
  for (const Endpoint newcomer : {endpoint("127.0.0.2", 1000), kViewer}) {
    clock.set_ms(1000);
    ASSERT_EQ(add(kViewer), 1);
    static Endpoint comes;
    comes = newcomer;
    clock.set([] {
      static bool is_within = false;  // a registration reads the clock, too
      if (!std::exchange(is_within, true)) {
        receive(frame("\1"));
        receive(frame("\0\0"s), comes);
        is_within = false;
      }
      return timespec{60, 0};
    });
    EXPECT_EQ(count(), 1);
    clock.set_ms(60'000);
    EXPECT_EQ(add(newcomer), 0) << "it is known";
    receive(frame("\1"), newcomer);
    console_.texts();
  }
}

/// A broadcast that reads a slot while one viewer leaves it and another comes.
TEST_F(Viewers, AnAddressIsNeverPairedWithAnothersPort) {
  static ViewerClient slot{};
  const Endpoint one = endpoint("127.0.0.1", 1001);
  const Endpoint other = endpoint("127.0.0.2", 1002);
  const test::Background comings_and_goings([one, other] {
    for (const Endpoint viewer : {one, other}) {
      slot.fill(viewer);
      static_cast<void>(slot.release(slot.tenancy));
    }
  });
  test::hammer(
      [one, other] {
        const Endpoint viewer = slot.viewer();
        if (viewer.port == 0) return;
        EXPECT_EQ(viewer.address, viewer.port == one.port ? one.address : other.address);
      },
      std::chrono::seconds(1));
}

TEST_F(Viewers, AFreeSlotHasNoTenancyToEnd) {
  ViewerClient slot{};
  EXPECT_FALSE(slot.release(slot.tenancy));
}

TEST_F(Viewers, AViewerIsLostAfterMoreThanFiveSeconds) {
  // The second one goes through the wrap of the clock.
  for (const std::uint32_t start : {1000U, 4'294'967'000U}) {
    test::WallClock clock;
    clock.set_ms(start);
    ASSERT_EQ(add(kViewer), 1);
    clock.set_ms(start + 5000);
    EXPECT_EQ(count(), 1);
    EXPECT_EQ(console_.texts(), Texts{});
    clock.set_ms(start + 5001);
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(console_.texts(), Texts{"Client 127.0.0.1:1000 lost\n"});
    EXPECT_EQ(count(), 0);
    EXPECT_EQ(console_.texts(), Texts{});
  }
}

TEST_F(Viewers, OnlyARegistrationKeepsAViewer) {
  const Endpoint other = endpoint("127.0.0.2", 2000);
  test::WallClock clock;
  clock.set_ms(0);
  ASSERT_EQ(add(kViewer), 1);
  ASSERT_EQ(add(other), 1);
  clock.set_ms(5000);
  EXPECT_EQ(add(other), 0);
  receive(frame("{\"cmd\":1}"));
  receive(frame("\5\1\0\0\0\0\0\0"s));
  clock.set_ms(5001);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(console_.texts(), Texts{"Client 127.0.0.1:1000 lost\n"});
  clock.set_ms(10'000);
  EXPECT_EQ(count(), 1);
  clock.set_ms(10'001);
  EXPECT_EQ(count(), 0);
}

// --- The protocol ------------------------------------------------------------------------------

TEST_F(Viewers, ARegistrationIsAnnouncedOnce) {
  struct Row {
    std::string payload;
    const char* mode;
  };
  const Row rows[] = {
      {"\0\0"s, " "}, {"\0\1"s, "(only data)"},       {"\0\2"s, " "}, {"\0\xFF"s, " "},
      {"\0"s, " "},   {"\0\1\2\3\4"s, "(only data)"}, {"", " "}};
  for (const auto& [payload, mode] : rows) {
    receive(frame(payload));
    EXPECT_EQ(console_.texts(), Texts{"New client connected from 127.0.0.1:1000 "s + mode + '\n'});
    receive(frame("\0\0"s));
    receive(frame("\0\1"s));
    EXPECT_EQ(console_.texts(), Texts{});
    receive(frame("\1"));
    EXPECT_EQ(console_.texts(), Texts{"Client 127.0.0.1:1000 removed\n"});
  }
}

TEST_F(Viewers, ALoneMagicByteIsARegistration) {
  receive("\x42");
  EXPECT_EQ(console_.texts(), Texts{"New client connected from 127.0.0.1:1000  \n"});
  receive(frame("\1"));
}

TEST_F(Viewers, OnlyTheViewerItselfLeaves) {
  ASSERT_EQ(add(kViewer), 1);
  receive(frame("\1"), endpoint("127.0.0.1", 1001));
  receive(frame("\1"), endpoint("127.0.0.2", 1000));
  EXPECT_EQ(console_.texts(), Texts{});
  EXPECT_EQ(count(), 1);
  receive(frame("\1\xFF"));
  EXPECT_EQ(console_.texts(), Texts{"Client 127.0.0.1:1000 removed\n"});
  receive(frame("\1"));
  EXPECT_EQ(console_.texts(), Texts{});
}

/// Values go through as they stand on the wire; what a short frame lacks is zero.
TEST_F(Viewers, ASpeedIsHandedOn) {
  receive(frame("\5\1\x10\x27\xF0\xD8\xFF\xFF"));
  receive(frame("\5\xFF\xFF\x7F\0\x80\1\0\x55"s));
  receive(frame("\5\2\x34"));
  receive(frame("\5"));
  EXPECT_EQ(
      speeds,
      (std::vector<Speed>{
          {1, 10'000, -10'000, -1}, {255, 32'767, -32'768, 1}, {2, 0x34, 0, 0}, {0, 0, 0, 0}}));
}

TEST_F(Viewers, ACommandGoesToTheMailbox) {
  receive(frame("{\"cmd\":\"first\"}"));
  receive(frame("{\"cmd\":\"a\"}\0tail"s));
  EXPECT_EQ(command(), "{\"cmd\":\"a\"}") << "the last one, up to its NUL";
  receive(frame("{"));
  EXPECT_EQ(command(), "{");
  for (const std::size_t length : {510U, 511U, 512U, 59'988U}) {
    const std::string text = '{' + std::string(length - 1, 'x');
    receive(frame(text));
    EXPECT_EQ(command(), text.substr(0, 511));
  }
}

TEST_F(Viewers, AFrameOfAnotherKindIsIgnored) {
  for (int first = 0; first < 256; ++first) {
    if (first == 0x42) continue;
    receive(static_cast<char>(first) + std::string(20, '\0'));
  }
  for (int type = 0; type < 256; ++type) {
    if (type == 0 || type == 1 || type == 5 || type == '{') continue;
    receive(frame(static_cast<char>(type) + "\1\2\3\4\5\6\7"s));
  }
  receive({});
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(console_.texts(), Texts{});
  EXPECT_EQ(speeds, std::vector<Speed>{});
  EXPECT_EQ(command(), "");
}

/// What comes from the service's own address and port has looped back.
TEST_F(Viewers, TheServicesOwnFramesAreIgnored) {
  const Endpoint service = endpoint("127.0.0.1", kViewerPort);
  receive(frame("\0\0"s), service);
  receive(frame("\5\1\1\0\1\0\1\0"s), service);
  receive(frame("{}"), service);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(speeds, std::vector<Speed>{});
  EXPECT_EQ(command(), "");
  for (const Endpoint other : {endpoint("127.0.0.1", 4243), endpoint("127.0.0.2", kViewerPort)}) {
    receive(frame("\0\0"s), other);
    EXPECT_EQ(count(), 1);
    receive(frame("\1"), other);
  }
}

// --- What is sent ------------------------------------------------------------------------------

/// The payload of the next frame that a viewer receives, behind its header.
std::string payload_of_next(const test::UdpEnd& viewer, std::uint8_t kind) {
  std::string received = viewer.receive();
  received.resize(std::max(received.size(), std::size_t{12}));
  received.replace(4, 4, "n..n");  // the number of the broadcast
  const std::string header = {'\x42', static_cast<char>(kind), 0, 0, 'n', '.', '.', 'n', 0, 0, 0,
                              0};
  EXPECT_EQ(received.substr(0, 12), header);
  return received.substr(12);
}

void broadcast(std::string_view payload, FrameKind kind) {
  nimbus::broadcast({reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()}, kind);
}

TEST_F(Viewers, EveryShapeOfMessageIsFramed) {
  const test::UdpEnd viewer;
  ASSERT_EQ(add(viewer.endpoint()), 1);
  send_status(ToViewer::flags, {1, 2, 3, 127, 128, 255});
  EXPECT_EQ(payload_of_next(viewer, 0), "\6\1\2\3\x7F\x80\xFF");
  send_triple(static_cast<ToViewer>(255), {0x1234, -2, -32'768});
  EXPECT_EQ(payload_of_next(viewer, 0), "\xFF\x34\x12\xFE\xFF\0\x80"s);
  broadcast_text("{}");
  EXPECT_EQ(payload_of_next(viewer, 0), "{}");
  broadcast("video", FrameKind::video);
  EXPECT_EQ(payload_of_next(viewer, 1), "video");
}

/// The number of the broadcast that is the next one to be received.
unsigned next_number(const test::UdpEnd& viewer) {
  const std::string received = viewer.receive();
  if (received.size() < 8) return 0;
  return load_le<std::uint32_t>(
      {reinterpret_cast<const std::uint8_t*>(received.data()), received.size()}, 4);
}

/// Whether the frames of three threads have numbers that follow one another. All are on one
/// processor, which goes to the next as soon as it is its turn.
bool numbers_follow(const test::UdpEnd& viewer) {
  constexpr unsigned kEach = 40;
  std::array<std::jthread, 3> senders;
  for (auto& sender : senders) {
    sender = std::jthread([] {
      const test::Processor first(0);
      for (unsigned i = 0; i < kEach; ++i) broadcast("x", FrameKind::data);
    });
  }
  const unsigned first = next_number(viewer);
  bool follow = true;
  for (unsigned i = 1; i < senders.size() * kEach; ++i) {
    follow = next_number(viewer) == first + i && follow;
  }
  return follow;
}

TEST_F(Viewers, EachFrameHasTheNextNumber) {
  const test::UdpEnd viewer;
  ASSERT_EQ(add(viewer.endpoint()), 1);
  // A busy machine may hold a thread that has the turn for so long that it is taken away.
  EXPECT_TRUE(test::mostly([&viewer] { return numbers_follow(viewer); }));
}

TEST_F(Viewers, VideoIsTheNextToBeSent) {
  const test::UdpEnd viewer;
  ASSERT_EQ(add(viewer.endpoint()), 1);
  for (std::size_t n = 1; n < kMaxViewers; ++n) ASSERT_EQ(add(viewer_number(n)), 1);
  // A busy machine may keep a thread from coming in time.
  std::string order;
  EXPECT_TRUE(test::mostly([&] {
    std::array<std::jthread, 3> senders;
    for (std::size_t n = 0; n < senders.size(); ++n) {
      senders[n] = std::jthread([n] {
        const char name = "abv"[n];
        broadcast({&name, 1}, name == 'v' ? FrameKind::video : FrameKind::data);
      });
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    order.clear();
    while (order.size() < senders.size()) order += ('?' + viewer.receive()).back();
    return order == "avb";
  })) << order;
}

TEST_F(Viewers, AViewerThatCannotBeReachedDoesNotKeepFramesFromOthers) {
  const test::UdpEnd first, second;
  ASSERT_EQ(add(first.endpoint()), 1);
  ASSERT_EQ(add(endpoint("192.0.2.1", 9)), 1) << "there is no way to this network";
  ASSERT_EQ(add(endpoint("255.255.255.255", 9)), 1) << "not allowed to this socket";
  ASSERT_EQ(add(second.endpoint()), 1);
  for (int i = 0; i < 20; ++i) {
    const auto begin = std::chrono::steady_clock::now();
    broadcast("x", FrameKind::data);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4))
        << "the pause follows what was not sent, too";
    EXPECT_EQ(payload_of_next(first, 0), "x");
    EXPECT_EQ(payload_of_next(second, 0), "x");
  }
}

/// Too long for a datagram, a payload reaches nobody; with its header past 16 bits, what is left of
/// the length does.
TEST_F(Viewers, TheLengthOfAFrameHas16Bits) {
  constexpr std::size_t kHeader = 12;
  struct Row {
    std::size_t frame, received;
  };
  constexpr Row kRows[] = {{kHeader, kHeader}, {65'507, 65'507},  {65'508, 0},        {65'535, 0},
                           {65'536 + 1, 1},    {65'536 + 12, 12}, {65'536 + 100, 100}};
  const test::UdpEnd viewer;
  ASSERT_EQ(add(viewer.endpoint()), 1);
  for (const auto& row : kRows) {
    broadcast(std::string(row.frame - kHeader, 'x'), FrameKind::data);
    if (row.received != 0) {
      EXPECT_EQ(viewer.receive().size(), row.received) << row.frame;
    }
  }
  broadcast("the last", FrameKind::data);
  EXPECT_EQ(payload_of_next(viewer, 0), "the last");
}

}  // namespace
}  // namespace nimbus
