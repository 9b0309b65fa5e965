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
  EXPECT_TRUE(lease.deny("a"));
  EXPECT_FALSE(lease.asked_by());
  EXPECT_FALSE(lease.take("b", kStart + seconds(2)));
  EXPECT_TRUE(lease.grant("a", "b", kStart + seconds(2)));
  EXPECT_TRUE(lease.held_by("b"));
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
  Helm helm{[this](const Helm::Speeds& speeds) { frames.push_back(speeds); }};
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

  void message(std::vector<std::uint8_t> payload) {
    hub.take({.video = false, .number = number++, .payload = payload}, Clock::now());
  }
  void text(const std::string& text) { message({text.begin(), text.end()}); }
  void video(const Buffer& payload) {
    hub.take({.video = true, .number = number++, .payload = payload}, Clock::now());
  }

  std::uint32_t number = 0;  ///< of the next frame
};

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

TEST(WebHub, TheLeaseGoesByConsent) {
  House house;
  const auto one = house.hub.open_control({"10.0.0.1", true});
  const auto two = house.hub.open_control({"10.0.0.2", true});
  one->received(R"({"type":"take"})");
  one->received(R"({"type":"speed","pan":1,"tilt":0,"roll":0,"n":1})");
  two->received(R"({"type":"take"})");
  EXPECT_NE(hear(*one).at("lease").find(R"("asked_by":"b2","asked_name":"10.0.0.2","you":true)"),
            std::string::npos);
  one->received(R"({"type":"deny"})");
  EXPECT_NE(hear(*two).at("notice").find("keeps"), std::string::npos);
  two->received(R"({"type":"take"})");
  one->received(R"({"type":"grant","to":"b2"})");
  EXPECT_NE(hear(*two).at("lease").find(R"("holder":"b2","name":"10.0.0.2")"), std::string::npos);
  // The one who drove does not move the gimbal any more.
  EXPECT_EQ(house.speeds.back(), (std::array<std::int16_t, 3>{}));
  one->received(R"({"type":"speed","pan":1,"tilt":0,"roll":0,"n":9})");
  EXPECT_EQ(house.speeds.back(), (std::array<std::int16_t, 3>{}));
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
