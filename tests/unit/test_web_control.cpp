// Who drives, what goes to the service and when, and what browsers are told.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "base/wire.h"
#include "tests/unit/web_streams.h"
#include "tools/common/failure.h"
#include "tools/ctl/json.h"
#include "tools/web/hub.h"
#include "tools/web/json_text.h"
#include "tools/web/orders.h"

namespace nimbus::web {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Time kStart = Time{} + seconds(1000);

// --- The lease ---------------------------------------------------------------------------------

TEST(WebLease, OneAtATime) {
  Lease lease;
  EXPECT_TRUE(lease.take("a", kStart));
  EXPECT_FALSE(lease.take("b", kStart + seconds(2)));
  EXPECT_EQ(lease.asked_by(), "b");
  EXPECT_FALSE(lease.grant("b", "b", kStart));
  EXPECT_FALSE(lease.deny("b", kStart));
  EXPECT_TRUE(lease.deny("a", kStart));
  EXPECT_FALSE(lease.asked_by());
  EXPECT_FALSE(lease.take("b", kStart + seconds(2)));
  EXPECT_TRUE(lease.grant("a", "b", kStart + seconds(2)));
  EXPECT_TRUE(lease.held_by("b"));
}

/// Nobody is asked again and again; others may ask, and silence loses it all the same.
TEST(WebLease, WhoWasDeniedIsNotHeardForAWhile) {
  Lease lease;
  EXPECT_TRUE(lease.take("a", kStart));
  EXPECT_FALSE(lease.take("b", kStart));
  lease.deny("a", kStart);
  lease.heartbeat("a", kStart + milliseconds(4999));
  EXPECT_FALSE(lease.take("b", kStart + milliseconds(4999)));
  EXPECT_FALSE(lease.asked_by());
  EXPECT_FALSE(lease.take("c", kStart + milliseconds(4999)));
  EXPECT_EQ(lease.asked_by(), "c");
  EXPECT_FALSE(lease.take("b", kStart + seconds(5)));
  EXPECT_EQ(lease.asked_by(), "c") << "one at a time";
  lease.deny("a", kStart + seconds(5));
  EXPECT_FALSE(lease.take("b", kStart + seconds(5)));
  EXPECT_EQ(lease.asked_by(), "b");
  lease.deny("a", kStart + seconds(5));
  EXPECT_TRUE(lease.take("b", kStart + seconds(8)));
  EXPECT_FALSE(lease.take("a", kStart + seconds(8)));
  EXPECT_EQ(lease.asked_by(), "a");
}

TEST(WebLease, SilenceLosesItToTheNext) {
  Lease lease;
  EXPECT_TRUE(lease.take("a", kStart));
  lease.heartbeat("a", kStart + seconds(2));
  lease.heartbeat("b", kStart + seconds(4));  // of nobody
  EXPECT_FALSE(lease.take("b", kStart + milliseconds(4999)));
  EXPECT_TRUE(lease.take("b", kStart + seconds(5)));
  EXPECT_TRUE(lease.held_by("b"));
}

TEST(WebLease, WhoAskedGetsItWhenItIsGivenBack) {
  Lease lease;
  EXPECT_TRUE(lease.take("a", kStart));
  EXPECT_FALSE(lease.take("b", kStart));
  lease.release("a", kStart);
  EXPECT_TRUE(lease.held_by("b"));
  EXPECT_FALSE(lease.take("c", kStart));
  lease.release("c", kStart);  // asks no more
  lease.release("b", kStart);
  EXPECT_FALSE(lease.holder());
}

// --- The gimbal --------------------------------------------------------------------------------

struct Gimbal {
  std::vector<Helm::Speeds> frames;
  int ends = 0;  ///< of what commands began
  Helm helm{[this](const Helm::Speeds& speeds) { frames.push_back(speeds); }, [this] { ++ends; }};
};

TEST(WebHelm, SpeedsArePartsOfFullSpeed) {
  Gimbal gimbal;
  gimbal.helm.steer({1, -0.5, 0.25}, 1, kStart);
  gimbal.helm.steer({7, -7, std::numeric_limits<double>::quiet_NaN()}, 2, kStart);
  EXPECT_EQ(gimbal.frames, (std::vector<Helm::Speeds>{{4000, -2000, 1000}, {4000, -4000, 0}}));
}

TEST(WebHelm, LateSpeedsAreNothing) {
  Gimbal gimbal;
  gimbal.helm.steer({1, 0, 0}, 5, kStart);
  gimbal.helm.steer({0.5, 0, 0}, 4, kStart);
  gimbal.helm.steer({0.5, 0, 0}, 5, kStart);
  EXPECT_EQ(gimbal.frames.size(), 1U);
}

TEST(WebHelm, SilenceStopsTheGimbal) {
  Gimbal gimbal;
  gimbal.helm.steer({1, 0, 0}, 1, kStart);
  ASSERT_TRUE(gimbal.helm.deadline());
  EXPECT_EQ(*gimbal.helm.deadline(), kStart + milliseconds(300));
  gimbal.helm.pass_time(kStart + milliseconds(299));
  EXPECT_EQ(gimbal.frames.size(), 1U);
  Time now = kStart;
  while (const auto due = gimbal.helm.deadline()) {
    now = *due;
    gimbal.helm.pass_time(now);
  }
  // Said three times: one may get lost.
  EXPECT_EQ(gimbal.frames.size(), 4U);
  EXPECT_EQ(gimbal.frames.back(), (Helm::Speeds{}));
  EXPECT_LE(now, kStart + milliseconds(350));
  EXPECT_FALSE(gimbal.helm.moving());
}

TEST(WebHelm, AStopIsNotSaidIntoTheNextMove) {
  Gimbal gimbal;
  gimbal.helm.steer({1, 0, 0}, 1, kStart);
  gimbal.helm.steer({0, 0, 0}, 2, kStart + milliseconds(10));
  gimbal.helm.steer({1, 0, 0}, 3, kStart + milliseconds(15));
  gimbal.helm.pass_time(kStart + milliseconds(100));
  EXPECT_EQ(gimbal.frames.size(), 3U);
  EXPECT_EQ(gimbal.frames.back()[0], 4000);
}

TEST(WebHelm, WhoeverReleasesStops) {
  Gimbal gimbal;
  gimbal.helm.release(kStart);
  EXPECT_TRUE(gimbal.frames.empty());
  gimbal.helm.steer({0, 1, 0}, 9, kStart);
  gimbal.helm.release(kStart);
  EXPECT_EQ(gimbal.frames.back(), (Helm::Speeds{}));
  gimbal.helm.steer({0, 1, 0}, 1, kStart);  // another, who counts anew
  EXPECT_EQ(gimbal.frames.back()[1], 4000);
}

/// Once each, by whatever stops the gimbal; what was ended by a command is no more.
TEST(WebHelm, WhatACommandBeganIsEndedByEveryStop) {
  Gimbal gimbal;
  gimbal.helm.steer({0, 0, 0}, 1, kStart);
  gimbal.helm.release(kStart);
  EXPECT_EQ(gimbal.ends, 0);
  gimbal.helm.commanded(true);
  EXPECT_TRUE(gimbal.helm.moving());
  gimbal.helm.steer({0, 0, 0}, 1, kStart);
  EXPECT_EQ(gimbal.ends, 1);
  EXPECT_FALSE(gimbal.helm.moving());
  gimbal.helm.steer({0, 0, 0}, 2, kStart);
  EXPECT_EQ(gimbal.ends, 1);
  gimbal.helm.commanded(true);
  gimbal.helm.release(kStart);
  EXPECT_EQ(gimbal.ends, 2);
  gimbal.helm.commanded(true);
  gimbal.helm.pass_time(kStart + seconds(10));
  EXPECT_EQ(gimbal.ends, 2) << "nobody steers who could fall silent";
  gimbal.helm.steer({1, 0, 0}, 1, kStart + seconds(10));
  gimbal.helm.pass_time(kStart + seconds(11));
  EXPECT_EQ(gimbal.ends, 3);
  gimbal.helm.commanded(true);
  gimbal.helm.commanded(false);
  gimbal.helm.release(kStart + seconds(11));
  EXPECT_EQ(gimbal.ends, 3);
}

// --- The queue ---------------------------------------------------------------------------------

struct Mailbox {
  std::vector<std::string> texts;
  bool there = true;
  CommandQueue queue{[this](const std::string& text) {
    if (there) texts.push_back(text);
    return there;
  }};
};

TEST(WebCommandQueue, CommandsKeepTheirDistance) {
  Mailbox mailbox;
  mailbox.queue.push({.text = "1"}, kStart);
  mailbox.queue.push({.text = "2", .busy = milliseconds(100)}, kStart);
  mailbox.queue.push({.text = "3"}, kStart);
  EXPECT_EQ(mailbox.texts, (std::vector<std::string>{"1"}));
  mailbox.queue.pass_time(kStart + milliseconds(54));
  EXPECT_EQ(mailbox.texts.size(), 1U);
  EXPECT_EQ(*mailbox.queue.deadline(), kStart + milliseconds(55));
  mailbox.queue.pass_time(kStart + milliseconds(55));
  EXPECT_EQ(mailbox.texts.size(), 2U);
  mailbox.queue.pass_time(kStart + milliseconds(209));
  EXPECT_EQ(mailbox.texts.size(), 2U);
  mailbox.queue.pass_time(kStart + milliseconds(210));
  EXPECT_EQ(mailbox.texts, (std::vector<std::string>{"1", "2", "3"}));
  EXPECT_FALSE(mailbox.queue.deadline());
}

TEST(WebCommandQueue, AnswersAreWaitedForButNotForEver) {
  Mailbox mailbox;
  mailbox.queue.push({.text = "set"}, kStart);
  mailbox.queue.push({.text = "ask", .awaits = Reply::report}, kStart);
  mailbox.queue.push({.text = "next"}, kStart);
  mailbox.queue.pass_time(kStart + milliseconds(55));
  mailbox.queue.pass_time(kStart + seconds(2));
  EXPECT_EQ(mailbox.texts.back(), "ask");
  mailbox.queue.replied(Reply::scan, kStart + seconds(2));
  mailbox.queue.pass_time(kStart + seconds(3));
  EXPECT_EQ(mailbox.texts.back(), "ask") << "that was another's answer";
  mailbox.queue.replied(Reply::report, kStart + seconds(3));
  EXPECT_EQ(mailbox.texts.back(), "ask");
  mailbox.queue.pass_time(kStart + seconds(3) + milliseconds(55));
  EXPECT_EQ(mailbox.texts.back(), "next");

  Mailbox silent;
  silent.queue.push({.text = "ask", .awaits = Reply::report}, kStart);
  silent.queue.push({.text = "next"}, kStart);
  silent.queue.pass_time(kStart + seconds(11));
  EXPECT_EQ(silent.texts.back(), "next");
}

TEST(WebCommandQueue, WhatHasNoTurnInTimeIsDropped) {
  Mailbox mailbox;
  std::vector<std::string> told;
  mailbox.queue.push({.text = "ask", .awaits = Reply::report}, kStart);
  mailbox.queue.push({.text = "late",
                      .until = kStart + seconds(3),
                      .done =
                          [&told](bool sent, std::string_view text) {
                            EXPECT_FALSE(sent);
                            told.emplace_back(text);
                          }},
                     kStart);
  mailbox.queue.push({.text = "about it", .follows = true}, kStart);
  mailbox.queue.push({.text = "a program's"}, kStart);
  ASSERT_TRUE(mailbox.queue.deadline());
  EXPECT_EQ(*mailbox.queue.deadline(), kStart + seconds(3));
  mailbox.queue.pass_time(kStart + milliseconds(2999));
  EXPECT_TRUE(told.empty());
  mailbox.queue.pass_time(kStart + seconds(3));
  EXPECT_EQ(told, (std::vector<std::string>{
                      "the service was busy for too long, so this was not done; try again"}));
  mailbox.queue.pass_time(kStart + seconds(11));
  EXPECT_EQ(mailbox.texts, (std::vector<std::string>{"ask", "a program's"}));
  EXPECT_EQ(mailbox.queue.depth(), 0U);
}

TEST(WebCommandQueue, WhatFollowsACommandThatHasGoneIsNotDropped) {
  Mailbox mailbox;
  mailbox.queue.push({.text = "set"}, kStart);
  mailbox.queue.push({.text = "ask", .awaits = Reply::report, .follows = true}, kStart);
  mailbox.queue.push({.text = "next"}, kStart);
  mailbox.queue.drop([](const QueuedCommand&) { return true; }, "");
  mailbox.queue.pass_time(kStart + milliseconds(55));
  mailbox.queue.pass_time(kStart + seconds(11));
  EXPECT_EQ(mailbox.texts, (std::vector<std::string>{"set", "ask"}));
}

/// It goes before all others, waits for no answer, and is said three times. Nothing goes behind it
/// into the mailbox of a service that is busy.
TEST(WebCommandQueue, TheOrderToRestWaitsForNobody) {
  Mailbox mailbox;
  std::vector<std::string> expected{"set"};
  const auto at = [&mailbox](int ms) { mailbox.queue.pass_time(kStart + milliseconds(ms)); };
  mailbox.queue.push({.text = "set"}, kStart);
  mailbox.queue.push({.text = "ask", .awaits = Reply::report, .follows = true}, kStart);
  mailbox.queue.push({.text = "next"}, kStart);
  mailbox.queue.rest("rest", kStart + milliseconds(10));
  EXPECT_TRUE(mailbox.queue.rests());
  EXPECT_EQ(mailbox.texts, expected) << "the one before may not have been taken";
  for (const auto& [ms, text] :
       {std::pair{55, "ask"}, {110, "rest"}, {165, "rest"}, {220, "rest"}}) {
    at(ms - 1);
    EXPECT_EQ(mailbox.texts, expected) << ms;
    EXPECT_EQ(*mailbox.queue.deadline(), kStart + milliseconds(ms));
    at(ms);
    expected.emplace_back(text);
    EXPECT_EQ(mailbox.texts, expected) << ms;
  }
  EXPECT_FALSE(mailbox.queue.rests());
  // The service may have been busy, and the question no longer in the mailbox.
  at(275);
  expected.emplace_back("ask");
  EXPECT_EQ(mailbox.texts, expected);
  at(1000);
  EXPECT_EQ(mailbox.texts, expected);
  mailbox.queue.replied(Reply::report, kStart + seconds(1));
  at(1055);
  EXPECT_EQ(mailbox.texts.back(), "next");
}

TEST(WebCommandQueue, TheOrderToRestReachesAServiceThatComesBack) {
  Mailbox mailbox;
  mailbox.there = false;
  mailbox.queue.rest("rest", kStart);
  mailbox.queue.pass_time(kStart + seconds(60));
  EXPECT_TRUE(mailbox.queue.rests());
  mailbox.there = true;
  for (int i = 1; i < 10; ++i) mailbox.queue.pass_time(kStart + seconds(60 + i));
  EXPECT_EQ(mailbox.texts, (std::vector<std::string>(3, "rest")));
  EXPECT_FALSE(mailbox.queue.deadline());
}

TEST(WebCommandQueue, ItHasAnEnd) {
  Mailbox mailbox;
  mailbox.queue.push({.text = "first"}, kStart);
  for (std::size_t i = 0; i < CommandQueue::kMost; ++i) {
    ASSERT_TRUE(mailbox.queue.has_room());
    mailbox.queue.push({.text = "more"}, kStart);
  }
  EXPECT_FALSE(mailbox.queue.has_room());
}

// --- Orders ------------------------------------------------------------------------------------

std::string order_text(const std::string& order, const std::string& report = "{}") {
  const ctl::Json json = ctl::parse_object(order);
  const ctl::Json known = ctl::parse_object(report);
  std::string all;
  try {
    for (const QueuedCommand& one : orders_of(json.get(), known.get())) all += one.text;
  } catch (const tools::Failure& failure) {
    return std::string("! ") + failure.what();
  }
  return all;
}

TEST(WebOrders, NimbusctlsWords) {
  EXPECT_EQ(order_text(R"({"words":["iso","400"]})"), R"({"cmd":"iso","param":"400"})");
  EXPECT_EQ(order_text(R"({"words":["restart"],"confirmed":true})"), R"({"cmd":"restart"})");
  EXPECT_EQ(order_text(R"({"name":"osd_enabled","values":["on"]})"),
            R"({"cmd":"updateparam","name":"osd_enabled","value":"1"}{"cmd":"configrequest"})");
  EXPECT_EQ(order_text(R"({"interface":"wlan0"})"), R"({"cmd":"wlan","param":"scan","value":"2"})");
}

/// What takes the service a while is known to the queue.
TEST(WebOrders, TheServiceIsBusyForAWhile) {
  const auto busy = [](const std::string& order) {
    const ctl::Json json = ctl::parse_object(order);
    return orders_of(json.get(), nullptr).front().busy;
  };
  EXPECT_EQ(busy(R"({"words":["iso","400"]})"), milliseconds(0));
  EXPECT_GT(busy(R"({"words":["exposure","center"]})"), milliseconds(0));
}

constexpr const char* kRest =
    R"({"cmd":"position","param":"speed","value1":"0","value2":"0","value3":"0"})";

TEST(WebOrders, WhatMovesTheGimbalOnAndOnIsKnown) {
  const auto moves = [](const std::string& order) {
    const ctl::Json json = ctl::parse_object(order);
    return orders_of(json.get(), nullptr).front().moves;
  };
  EXPECT_EQ(moves(R"({"words":["gimbal","move","0","-500"]})"), true);
  EXPECT_EQ(moves(R"({"words":["gimbal","move","0","0","1"]})"), true);
  EXPECT_EQ(moves(R"({"words":["gimbal","move","0","0"]})"), false);
  EXPECT_EQ(moves(R"({"words":["gimbal","speed","1","0","0"]})"), true);
  EXPECT_EQ(moves(R"({"words":["gimbal","speed","0","-0","0"]})"), false);
  EXPECT_EQ(moves(R"({"words":["gimbal","centre"]})"), std::nullopt);
  EXPECT_EQ(order_to_rest(), kRest);
}

TEST(WebOrders, WhatIsWrongIsSaid) {
  const std::map<std::string, std::string> rows{
      {R"({})", "no order; expected words, name and values, or interface"},
      {R"({"words":"iso"})", "words is no list; expected texts"},
      {R"({"words":[]})", "no words; expected a command such as [\"iso\",\"400\"]"},
      {R"({"words":["iso",400]})",
       "words has something that is not a text; expected texts, also for numbers"},
      {R"({"words":["nosuch"]})", "no command 'nosuch'; expected one of /api/commands"},
      {R"({"words":["record"]})", "record needs a word; expected start, stop"},
      {R"({"words":["iso"]})", "iso has 0 value(s); expected ISO"},
      {R"({"words":["shutdown"]})",
       "shutdown would shut the board down; expected \"confirmed\":true as a sign that you mean "
       "it"},
      {R"({"interface":"eth0"})", "no interface 'eth0'; expected wifi0 or wlan0"},
      {R"({"interface":"none"})", "no interface 'none'; expected wifi0 or wlan0"},
  };
  for (const auto& [order, said] : rows) EXPECT_EQ(order_text(order), "! " + said) << order;
}

// --- The hub -----------------------------------------------------------------------------------

/// A hub with a service that notes what it hears.
struct House {
  std::vector<std::string> commands;
  std::vector<std::array<std::int16_t, 3>> speeds;
  Hub hub{"board:4242",
          {[this](std::string_view text) {
             commands.emplace_back(text);
             return true;
           },
           [this](const std::array<std::int16_t, 3>& speed) {
             speeds.push_back(speed);
             return true;
           }}};

  House() { hub.each_second(true, Clock::now()); }

  void message(std::vector<std::uint8_t> payload, Time now = Clock::now()) {
    hub.take({.video = false, .number = number++, .payload = payload}, now);
  }
  void text(const std::string& text) { message({text.begin(), text.end()}); }
  void video(const Buffer& payload) {
    hub.take({.video = true, .number = number++, .payload = payload}, Clock::now());
  }

  /// Lets the queue go on.
  void pass(milliseconds time) { hub.pass_time(Clock::now() + time); }

  std::uint32_t number = 0;  ///< of the next frame
};

constexpr const char* kReport = R"({"app":"nimbus","ap_ssid":"x","version":"0.3.7","ifaces":[]})";

/// Everything that waits for a browser, by type; the last of each.
std::map<std::string, std::string> hear(Peer& peer) {
  std::map<std::string, std::string> texts;
  while (const auto message = peer.next()) {
    const std::string text(message->head.begin(), message->head.end());
    texts[ctl::member_text(ctl::parse_object(text).get(), "type")] = text;
  }
  return texts;
}

TEST(WebHub, ABrowserIsGreeted) {
  House house;
  house.message({11, 0, 3, 7, 2, 0, 0});
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  const auto texts = hear(*peer);
  EXPECT_NE(texts.at("hello").find(R"("you":"b1","role":"operator","password":false)"),
            std::string::npos);
  EXPECT_NE(texts.at("hello").find(R"("words":"iso")"), std::string::npos);
  EXPECT_NE(texts.at("state").find(R"("version":"0.3.7")"), std::string::npos);
  EXPECT_NE(texts.at("lease").find(R"("holder":null)"), std::string::npos);
  // The settings are asked for once.
  EXPECT_EQ(house.commands, (std::vector<std::string>{R"({"cmd":"configrequest"})"}));
  const auto another = house.hub.open_control({"10.0.0.9", true});
  EXPECT_EQ(house.commands.size(), 1U);
}

TEST(WebHub, OnlyWhatChangesIsTold) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  hear(*peer);
  house.hub.tell_changes(Clock::now());
  hear(*peer);
  house.message({8, 1, 0, 0, 0, 0, 0});
  house.hub.tell_changes(Clock::now());
  const auto texts = hear(*peer);
  EXPECT_NE(texts.at("state").find(R"("locked":true)"), std::string::npos);
  EXPECT_EQ(texts.at("state").find("histogram"), std::string::npos);
}

TEST(WebHub, PassPhrasesStayHere) {
  House house;
  house.text(R"({"app":"nimbus","ap_ssid":"x","ap_psk":"secret","version":"0.3.7","ifaces":[]})");
  const std::string state = house.hub.state(Clock::now());
  EXPECT_NE(state.find(R"("ap_ssid":"x")"), std::string::npos);
  EXPECT_EQ(state.find("secret"), std::string::npos);
}

TEST(WebHub, WhoDoesNotDriveOrdersNothing) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  hear(*peer);
  const std::size_t before = house.commands.size();
  peer->received(R"({"type":"command","id":1,"words":["shot"]})");
  peer->received(R"({"type":"speed","pan":1,"tilt":0,"roll":0,"n":1})");
  EXPECT_EQ(hear(*peer).at("result"),
            R"({"type":"result","id":1,"ok":false,"text":"you do not drive; take control first"})");
  EXPECT_EQ(house.commands.size(), before);
  EXPECT_TRUE(house.speeds.empty());
}

TEST(WebHub, WhoMayOnlyWatchTakesNothing) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", false});
  hear(*peer);
  peer->received(R"({"type":"take"})");
  EXPECT_NE(hear(*peer).at("result").find("watch only"), std::string::npos);
  EXPECT_NE(house.hub.state(Clock::now()).find(R"("holder":null)"), std::string::npos);
}

TEST(WebHub, WhoMayOnlyWatchIsGivenNothing) {
  House house;
  const auto one = house.hub.open_control({"10.0.0.1", true});
  const auto two = house.hub.open_control({"10.0.0.2", false});
  one->received(R"({"type":"take"})");
  one->received(R"({"type":"grant","to":"b2"})");
  EXPECT_NE(house.hub.state(Clock::now()).find(R"("holder":"b1")"), std::string::npos);
}

TEST(WebHub, ADriverThatLeavesStopsTheGimbal) {
  House house;
  auto peer = house.hub.open_control({"10.0.0.9", true});
  peer->received(R"({"type":"take"})");
  peer->received(R"({"type":"speed","pan":0.5,"tilt":0,"roll":0,"n":1})");
  ASSERT_EQ(house.speeds.size(), 1U);
  EXPECT_EQ(house.speeds[0][0], 2000);
  peer.reset();
  EXPECT_EQ(house.speeds.back(), (std::array<std::int16_t, 3>{}));
}

/// A browser that drives, and whose orders go at once.
std::unique_ptr<Peer> driver(House& house) {
  auto peer = house.hub.open_control({"10.0.0.9", true});
  house.text(kReport);
  peer->received(R"({"type":"take"})");
  return peer;
}

constexpr const char* kTurn = R"({"type":"command","id":1,"words":["gimbal","move","1000","0"]})";
constexpr const char* kTurns =
    R"({"cmd":"position","param":"moverel","value1":"1000","value2":"0"})";
constexpr const char* kStop = R"({"type":"speed","pan":0,"tilt":0,"roll":0,"n":1})";

/// The service goes on with it until it is told otherwise, whatever speeds say.
TEST(WebHub, WhatACommandBeganEndsWithItsDriver) {
  struct Way {
    const char* name;
    void (*end)(House& house, std::unique_ptr<Peer>& peer);
  };
  for (const Way& way : {
           Way{"leaves", [](House&, std::unique_ptr<Peer>&peer) { peer.reset(); }},
           {"gives back",
            [](House&, std::unique_ptr<Peer>&peer) { peer->received(R"({"type":"release"})"); }},
           {"hands over",
            [](House&house, std::unique_ptr<Peer>&peer) {
              const auto other = house.hub.open_control({"10.0.0.8", true});
              peer->received(R"({"type":"grant","to":"b2"})");
            }},
           {"stops", [](House&, std::unique_ptr<Peer>&peer) { peer->received(kStop); }},
           {"is silent",
            [](House&house, std::unique_ptr<Peer>&) {
              house.hub.each_second(true, Clock::now() + seconds(4));
            }},
       }) {
    House house;
    auto peer = driver(house);
    peer->received(kTurn);
    house.pass(milliseconds(100));
    ASSERT_EQ(house.commands.back(), kTurns) << way.name;
    EXPECT_NE(house.hub.state(Clock::now()).find(R"("moving":true)"), std::string::npos);
    way.end(house, peer);
    house.pass(milliseconds(200));
    EXPECT_EQ(house.commands.back(), kRest) << way.name;
    EXPECT_NE(house.hub.state(Clock::now()).find(R"("moving":false)"), std::string::npos);
  }
}

TEST(WebHub, WhatACommandBeganIsNotEndedWithoutNeed) {
  House house;
  auto peer = driver(house);
  peer->received(R"({"type":"command","id":1,"words":["gimbal","centre"]})");
  house.pass(milliseconds(100));
  peer->received(kTurn);
  house.pass(milliseconds(200));
  peer->received(R"({"type":"command","id":2,"words":["gimbal","speed","0","0","0"]})");
  house.pass(milliseconds(300));
  EXPECT_EQ(house.commands.back(), kRest) << "by itself";
  const std::size_t before = house.commands.size();
  peer.reset();
  house.pass(milliseconds(400));
  EXPECT_EQ(house.commands.size(), before);
}

/// Also what a program began, which has no connection to lose.
TEST(WebHub, WhatACommandBeganEndsWithTheServer) {
  std::vector<std::string> commands;
  {
    Hub hub("board:4242", {[&commands](std::string_view text) {
                             commands.emplace_back(text);
                             return true;
                           },
                           [](const std::array<std::int16_t, 3>&) { return true; }});
    hub.each_second(true, Clock::now());
    EXPECT_TRUE(hub.order(R"({"words":["gimbal","move","1000","0"]})", Clock::now()).ok);
    hub.each_second(true, Clock::now() + seconds(60));
    EXPECT_EQ(commands, std::vector<std::string>{kTurns});
  }
  EXPECT_EQ(commands.back(), kRest);
}

TEST(WebHub, WhoeverTakesControlFindsTheGimbalAtRest) {
  House house;
  EXPECT_TRUE(house.hub.order(R"({"words":["gimbal","move","1000","0"]})", Clock::now()).ok);
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  house.text(kReport);
  house.pass(milliseconds(100));
  EXPECT_NE(house.commands.back(), kRest);
  peer->received(R"({"type":"take"})");
  house.pass(milliseconds(200));
  EXPECT_EQ(house.commands.back(), kRest);
}

/// A browser that drives, and whose move waits because the service has not answered yet.
std::unique_ptr<Peer> waiting_driver(House& house) {
  auto peer = house.hub.open_control({"10.0.0.9", true});
  peer->received(R"({"type":"take"})");
  hear(*peer);
  peer->received(kTurn);
  house.pass(milliseconds(100));
  EXPECT_EQ(hear(*peer).count("result"), 0U);
  return peer;
}

TEST(WebHub, WhatWaitsIsNotDoneForWhoHasLeft) {
  for (const bool stays : {true, false}) {
    House house;
    auto peer = waiting_driver(house);
    if (stays) {
      peer->received(R"({"type":"release"})");
      EXPECT_EQ(hear(*peer).at("result"),
                R"({"type":"result","id":1,"ok":false,"text":"you no longer drive"})");
    } else {
      peer.reset();
    }
    house.text(kReport);
    house.pass(seconds(1));
    EXPECT_EQ(house.commands, (std::vector<std::string>{R"({"cmd":"configrequest"})"}));
  }
}

TEST(WebHub, AStopIsForTheMoveThatWaits) {
  House house;
  const auto peer = waiting_driver(house);
  peer->received(kStop);
  EXPECT_EQ(hear(*peer).at("result"),
            R"({"type":"result","id":1,"ok":false,"text":"the gimbal was told to stop"})");
  house.text(kReport);
  house.pass(seconds(1));
  EXPECT_EQ(house.commands.size(), 1U);
}

/// A second later the page says so by itself.
TEST(WebHub, WhatTheServiceHasNoTimeForIsRefused) {
  House house;
  const auto peer = waiting_driver(house);
  house.pass(seconds(3));
  EXPECT_NE(hear(*peer).at("result").find(R"("ok":false,"text":"the service was busy)"),
            std::string::npos);
  house.text(kReport);
  house.pass(seconds(1));
  EXPECT_EQ(house.commands.size(), 1U);
  EXPECT_NE(house.hub.metrics(1, Clock::now()).find("\nnimbus_web_commands_refused_total 1\n"),
            std::string::npos);
}

TEST(WebHub, TheLeaseGoesByConsent) {
  House house;
  const auto one = house.hub.open_control({"10.0.0.1", true});
  const auto two = house.hub.open_control({"10.0.0.2", true});
  one->received(R"({"type":"take"})");
  one->received(R"({"type":"speed","pan":1,"tilt":0,"roll":0,"n":1})");
  two->received(R"({"type":"take"})");
  EXPECT_NE(hear(*one).at("lease").find(R"("asked_by":"b2","asked_name":"10.0.0.2","you":true)"),
            std::string::npos);
  // Neither the question nor a command of whoever drives stops what he moves.
  ASSERT_FALSE(house.speeds.empty());
  EXPECT_NE(house.speeds.back(), (std::array<std::int16_t, 3>{}));
  one->received(R"({"type":"command","id":1,"words":["shot"]})");
  house.pass(milliseconds(60));
  EXPECT_NE(house.speeds.back(), (std::array<std::int16_t, 3>{}));
  one->received(R"({"type":"deny"})");
  EXPECT_NE(hear(*two).at("notice").find("keeps"), std::string::npos);
  two->received(R"({"type":"take"})");
  EXPECT_NE(hear(*two).at("notice").find("has just kept"), std::string::npos);
  EXPECT_NE(hear(*one).at("lease").find(R"("asked_by":null,"asked_name":"")"), std::string::npos);
  one->received(R"({"type":"grant","to":"b2"})");
  EXPECT_NE(hear(*two).at("lease").find(R"("holder":"b2","name":"10.0.0.2")"), std::string::npos);
  // The one who drove does not move the gimbal any more.
  EXPECT_EQ(house.speeds.back(), (std::array<std::int16_t, 3>{}));
  one->received(R"({"type":"speed","pan":1,"tilt":0,"roll":0,"n":9})");
  EXPECT_EQ(house.speeds.back(), (std::array<std::int16_t, 3>{}));
}

/// Whoever drives hands over to the one of whom he has read.
TEST(WebHub, TheFirstWhoAsksIsAnsweredFirst) {
  House house;
  const auto one = house.hub.open_control({"10.0.0.1", true});
  const auto two = house.hub.open_control({"10.0.0.2", true});
  auto three = house.hub.open_control({"10.0.0.3", true});
  one->received(R"({"type":"take"})");
  three->received(R"({"type":"take"})");
  two->received(R"({"type":"take"})");
  EXPECT_NE(hear(*one).at("lease").find(R"("asked_by":"b3")"), std::string::npos);
  EXPECT_NE(hear(*two).at("notice").find("Somebody else"), std::string::npos);
  three.reset();
  two->received(R"({"type":"take"})");
  EXPECT_NE(hear(*one).at("lease").find(R"("asked_by":"b2")"), std::string::npos);
}

TEST(WebHub, WhatNoPageSendsEndsTheConnection) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  EXPECT_EQ(peer->received("{"), Peer::kNoJson);
  EXPECT_EQ(peer->received("[]"), Peer::kNoJson);
  EXPECT_FALSE(peer->received(R"({"type":"nosuch"})"));
  EXPECT_FALSE(peer->received(R"({"type":5})"));
  EXPECT_FALSE(peer->received(R"({"type":"speed","pan":"x"})"));
}

TEST(WebHub, ALogInThatHasEndedEndsTheConnection) {
  House house;
  bool on = true;
  const auto peer = house.hub.open_control({"10.0.0.9", true, [&on] { return on; }});
  EXPECT_FALSE(peer->over());
  on = false;
  EXPECT_EQ(peer->over(), Peer::kLogInAgain);
  EXPECT_EQ(peer->received("{}"), Peer::kLogInAgain);
}

TEST(WebHub, ABrowserThatDoesNotKeepUpGetsTheWholeLater) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  hear(*peer);
  for (int i = 0; i < 3000; ++i) {
    house.message({8, static_cast<std::uint8_t>(i % 2), 0, 0, 0, 0, 0});
    house.hub.tell_changes(Clock::now() + seconds(i));
  }
  std::size_t bytes = 0;
  std::string last;
  while (const auto message = peer->next()) {
    bytes += message->size();
    last.assign(message->head.begin(), message->head.end());
  }
  EXPECT_LT(bytes, 80'000U);
  EXPECT_NE(last.find("histogram"), std::string::npos);  // the whole
}

/// One that asks and asks, and reads no answer, costs no more.
TEST(WebHub, AnswersThatNobodyReadsHaveAnEnd) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  for (int i = 0; i < 5000; ++i) peer->received(R"({"type":"ping","echo":7})");
  std::size_t bytes = 0;
  while (const auto message = peer->next()) bytes += message->size();
  EXPECT_LT(bytes, 80'000U);
}

TEST(WebHub, PicturesThatASlowBrowserMissesAreCounted) {
  House house;
  const auto peer = house.hub.open_video({"10.0.0.9", true}, Form::raw);
  const auto pictures = access_units(recorded("zerolatency.h264"), Coding::h264);
  for (int i = 0; i < 3; ++i) {
    for (const Buffer& picture : pictures) house.video(picture);
  }
  const std::string metrics = house.hub.metrics(1, Clock::now());
  EXPECT_EQ(metrics.find("\nnimbus_web_pictures_dropped_total 0\n"), std::string::npos) << metrics;
}

TEST(WebHub, AServiceThatComesBackIsAskedAndCountedAnew) {
  House house;
  house.number = 500;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  house.text(R"({"app":"nimbus","version":"0.3.7"})");
  ASSERT_EQ(house.commands.size(), 1U);
  house.hub.each_second(false, Clock::now());
  house.number = 100;
  house.message({8, 1, 0, 0, 0, 0, 0});
  house.hub.pass_time(Clock::now() + seconds(1));
  EXPECT_EQ(house.commands.size(), 2U);
  ++house.number;  // that one did not come
  house.message({8, 1, 0, 0, 0, 0, 0});
  EXPECT_NE(house.hub.metrics(1, Clock::now()).find("\nnimbus_frames_missing_total 1\n"),
            std::string::npos);
}

/// The question, or its answer, may get lost.
TEST(WebHub, SettingsAreAskedForUntilTheyCome) {
  House house;
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  house.hub.each_second(true, Clock::now() + seconds(5));
  EXPECT_EQ(house.commands.size(), 1U);
  house.hub.each_second(true, Clock::now() + seconds(11));
  EXPECT_EQ(house.commands,
            (std::vector<std::string>{R"({"cmd":"configrequest"})", R"({"cmd":"configrequest"})"}));
  EXPECT_TRUE(house.hub.order(R"({"words":["shot"]})", Clock::now()).ok);
  house.pass(seconds(12));
  EXPECT_EQ(house.commands.back(), R"({"cmd":"shot"})") << "nobody waits for it again";
  house.text(kReport);
  house.hub.each_second(true, Clock::now() + seconds(30));
  EXPECT_EQ(house.commands.size(), 3U);
}

TEST(WebHub, WhatASettingHasBecomeIsAskedForUntilItComes) {
  House house;
  const auto peer = driver(house);
  peer->received(R"({"type":"set","id":1,"name":"osd_enabled","values":["on"]})");
  house.pass(milliseconds(100));
  house.pass(milliseconds(200));
  EXPECT_EQ(house.commands.size(), 3U);
  peer->received(R"({"type":"heartbeat"})");
  house.hub.each_second(true, Clock::now() + seconds(12));
  EXPECT_EQ(house.commands.size(), 4U);
  EXPECT_EQ(house.commands.back(), R"({"cmd":"configrequest"})");
}

/// No browser is open, which would have asked.
TEST(WebHub, AProgramChangesNetworksAtItsSecondTry) {
  House house;
  const std::string order = R"({"name":"wifi","values":["ap_ssid=boat"]})";
  const auto refused = house.hub.order(order, Clock::now());
  EXPECT_FALSE(refused.ok);
  EXPECT_EQ(refused.text, "the networks are not known yet; try again in a moment");
  EXPECT_EQ(house.commands, (std::vector<std::string>{R"({"cmd":"configrequest"})"}));
  house.text(kReport);
  EXPECT_TRUE(house.hub.order(order, Clock::now()).ok);
  house.pass(milliseconds(100));
  EXPECT_NE(house.commands.back().find("boat"), std::string::npos);
}

/// Both come between two looks at them.
TEST(WebHub, AReportAndAScanAreKeptBeside) {
  House house;
  house.text(R"({"app":"nimbus","ap_ssid":"x","version":"0.3.7","ifaces":[]})");
  house.text(R"({"cmd":"wlanscan","param":"1","value":"a,b"})");
  const std::string state = house.hub.state(Clock::now());
  EXPECT_NE(state.find(R"("ap_ssid":"x")"), std::string::npos);
  EXPECT_NE(state.find(R"("networks":["a","b"])"), std::string::npos);
}

TEST(WebHub, ProgramsOrderWhenNobodyDrives) {
  House house;
  EXPECT_TRUE(house.hub.order(R"({"words":["shot"]})", Clock::now()).ok);
  EXPECT_EQ(house.commands.back(), R"({"cmd":"shot"})");
  const auto peer = house.hub.open_control({"10.0.0.9", true});
  peer->received(R"({"type":"take"})");
  const auto refused = house.hub.order(R"({"words":["shot"]})", Clock::now());
  EXPECT_FALSE(refused.ok);
  EXPECT_TRUE(refused.conflict);
  EXPECT_EQ(refused.text, "10.0.0.9 drives");
}

TEST(WebHub, AServiceThatIsGoneIsSaid) {
  House house;
  house.hub.each_second(false, Clock::now());
  EXPECT_EQ(house.hub.order(R"({"words":["shot"]})", Clock::now()).text,
            "the service does not answer");
}

TEST(WebHub, RecordingsThatWereSeenToBeginHaveATime) {
  House house;
  house.message({19, 1, 0, 0, 0, 0, 0});
  static_cast<void>(house.hub.state(Clock::now()));
  house.message({19, 2, 0, 0, 0, 0, 0});
  const std::string state = house.hub.state(Clock::now());
  EXPECT_NE(state.find(R"("on":true)"), std::string::npos);
  EXPECT_EQ(state.find(R"("since":null)"), std::string::npos);
}

/// Whoever looks later sees the same.
TEST(WebHub, RecordingsBeginWhileNobodyLooks) {
  House house;
  const Time start = Clock::now();
  const auto since = [&house](Time now) {
    const ctl::Json state = ctl::parse_object(house.hub.state(now));
    const cJSON* const at = ctl::member(ctl::member(state.get(), "recording"), "since");
    return cJSON_IsNumber(at) != 0 ? static_cast<std::uint64_t>(at->valuedouble) : 0;
  };
  const std::vector<std::uint8_t> rests{19, 1, 0, 0, 0, 0, 0};
  const std::vector<std::uint8_t> records{19, 2, 0, 0, 0, 0, 0};
  house.message(rests, start);
  house.message(records, start + seconds(1));
  house.message(records, start + seconds(2));
  EXPECT_EQ(since(start + seconds(1800)), millis_of(start + seconds(1)));
  // Another one, between two looks.
  house.message(rests, start + seconds(3));
  house.message(records, start + seconds(4));
  EXPECT_EQ(since(start + seconds(1800)), millis_of(start + seconds(4)));
  // Nobody knows what was in the pause.
  house.message(records, start + seconds(13));
  EXPECT_EQ(since(start + seconds(1800)), millis_of(start + seconds(4))) << "a short one";
  house.message(records, start + seconds(23));
  EXPECT_EQ(since(start + seconds(1800)), 0U);
}

// --- JSON --------------------------------------------------------------------------------------

TEST(WebJson, TextsAreEscaped) {
  EXPECT_EQ(quoted("a\"b\\c\n\x01"), R"("a\"b\\c\u000a\u0001")");
  EXPECT_EQ(quoted("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\xB7"),
            "\"\xC3\xA4\xE2\x82\xAC\xF0\x9F\x93\xB7\"");
  for (const char* const wrong : {"\xFF", "\xC0\x80", "\xED\xA0\x80", "\xF5\x80\x80\x80"}) {
    EXPECT_EQ(quoted(wrong).substr(0, 4), "\"\xEF\xBF\xBD") << wrong;
  }
  EXPECT_EQ(quoted("\xE2\x82"), "\"\xEF\xBF\xBD\xEF\xBF\xBD\"");
}

TEST(WebJson, StatesAreMerged) {
  State state;
  EXPECT_NE(state.take_changes().find(R"("gimbal":{"at":null})"), std::string::npos);
  EXPECT_EQ(state.take_changes(), "");
  state.set("gimbal", "locked", "true");
  state.set("gimbal", "locked", "true");
  EXPECT_EQ(state.take_changes(), R"({"gimbal":{"locked":true}})");
  state.set("gimbal", "locked", "true");
  EXPECT_EQ(state.take_changes(), "");
  EXPECT_NE(state.whole().find(R"("locked":true)"), std::string::npos);
}

}  // namespace
}  // namespace nimbus::web
