// HTTP and WebSockets, byte by byte.
#include <gtest/gtest.h>

#include "tests/unit/web_wire.h"
#include "tools/web/site.h"

namespace nimbus::web {
namespace {

using std::chrono::seconds;

struct Console {
  Guests guests;
  Hub hub{"board:4242",
          {[](std::string_view) { return true; },
           [](const std::array<std::int16_t, 3>&) { return true; }}};
  ConsoleSite site{hub, guests, {}};
};

constexpr std::string_view kGet = "GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n";

std::string upgrade(const std::string& path) {
  return "GET " + path +
         " HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
         "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
}

/// A browser's frame: masked by zeros.
std::string frame(std::uint8_t first, const std::string& payload) {
  std::string bytes{
      static_cast<char>(first), static_cast<char>(0x80U | payload.size()), 0, 0, 0, 0};
  return bytes + payload;
}

TEST(WebConnection, OneAnswerAfterTheOther) {
  Console console;
  Wire wire(console.site);
  wire.send(kGet);
  EXPECT_TRUE(wire.take().starts_with("HTTP/1.1 200 OK\r\n"));
  wire.send(std::string(kGet) + std::string(kGet));
  const std::string two = wire.take();
  EXPECT_NE(two.find("HTTP/1.1 200 OK", 10), std::string::npos);
  EXPECT_TRUE(two.ends_with("\r\n\r\nok\n"));
}

TEST(WebConnection, ARequestInSinglePieces) {
  Console console;
  Wire wire(console.site);
  for (const char byte : kGet) {
    EXPECT_EQ(wire.take(), "");
    wire.send({&byte, 1});
  }
  EXPECT_TRUE(wire.take().starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST(WebConnection, AHeadWithoutItsBody) {
  Console console;
  Wire wire(console.site);
  wire.send("HEAD / HTTP/1.1\r\nHost: localhost\r\n\r\n");
  const std::string answer = wire.take();
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n"));
  EXPECT_TRUE(answer.ends_with("\r\n\r\n"));
  EXPECT_NE(answer.find("Content-Length: "), std::string::npos);
}

TEST(WebConnection, WhatIsNoRequestIsRefused) {
  const std::string host = "Host: localhost\r\n";
  struct Row {
    std::string bytes;
    const char* status;
  };
  const std::string long_header(9000, 'x');
  for (const Row& row : {
           Row{"nonsense\r\n\r\n", "400"},
           Row{"GET / HTTP/1.1\r\n" + host + "X: " + long_header + "\r\n\r\n", "431"},
           Row{"POST / HTTP/1.1\r\n" + host + "Content-Length: 65537\r\n\r\n", "413"},
           Row{"POST / HTTP/1.1\r\n" + host + "Content-Length: -1\r\n\r\n", "400"},
           Row{"POST / HTTP/1.1\r\n" + host + "Content-Length: 1\r\nContent-Length: 2\r\n\r\n",
               "400"},
           Row{"POST / HTTP/1.1\r\n" + host +
                   "Transfer-Encoding: chunked\r\n\r\nffffffffffffffffff\r\n",
               "400"},
       }) {
    Console console;
    Wire wire(console.site);
    wire.send(row.bytes);
    EXPECT_EQ(wire.take().substr(9, 3), row.status) << row.bytes.substr(0, 60);
  }
}

TEST(WebConnection, WhoSaysNothingIsLeft) {
  Console console;
  Wire wire(console.site);
  wire.check(Clock::now() + seconds(9));
  wire.send(kGet);
  EXPECT_FALSE(wire.take().empty());
  wire.check(Clock::now() + seconds(14));
  wire.send(kGet);
  EXPECT_FALSE(wire.take().empty());
  wire.check(Clock::now() + seconds(16));
  wire.send(kGet);
  EXPECT_EQ(wire.take(), "");
}

TEST(WebConnection, AWebSocketTalks) {
  Console console;
  Wire wire(console.site);
  wire.send(upgrade("/ws/control"));
  const std::string greeting = wire.take();
  EXPECT_TRUE(greeting.starts_with("HTTP/1.1 101 "));
  EXPECT_NE(greeting.find("s3pPLMBiTxaQ9kYGzzhZRbK+xOo="), std::string::npos);
  EXPECT_NE(greeting.find(R"("type":"hello")"), std::string::npos);
  wire.send(frame(0x81, R"({"type":"ping","echo":7})"));
  EXPECT_NE(wire.take().find(R"("echo":7)"), std::string::npos);
  wire.send(frame(0x89, "are you there"));
  EXPECT_NE(wire.take().find("are you there"), std::string::npos);
  EXPECT_NE(console.hub.state(Clock::now()).find(R"("watching":1)"), std::string::npos);
}

TEST(WebConnection, AWebSocketEndsWithACode) {
  const std::string close_code = {'\x88', 2, 3};
  struct Row {
    std::string bytes;
    char code;  // less 768
  };
  for (const Row& row : {Row{frame(0x81, "nonsense"), '\xEF'}, Row{frame(0x82, "{}"), '\xEB'},
                         Row{frame(0x83, "{}"), '\xEA'}}) {
    Console console;
    Wire wire(console.site);
    wire.send(upgrade("/ws/control"));
    wire.take();
    wire.send(row.bytes);
    const std::string answer = wire.take();
    EXPECT_NE(answer.find(close_code + row.code), std::string::npos);
    EXPECT_NE(console.hub.state(Clock::now()).find(R"("watching":0)"), std::string::npos);
  }
}

TEST(WebConnection, AConnectionThatEndsIsForgotten) {
  Console console;
  {
    Wire wire(console.site);
    wire.send(upgrade("/ws/video?form=raw"));
    EXPECT_NE(console.hub.state(Clock::now()).find(R"("browsers":1)"), std::string::npos);
  }
  EXPECT_NE(console.hub.state(Clock::now()).find(R"("browsers":0)"), std::string::npos);
}

/// A WebSocket that may not stay.
struct Unwelcome final : Peer {
  std::optional<Message> next() override { return std::nullopt; }
  std::optional<std::uint16_t> received(std::string_view /*text*/) override { return std::nullopt; }
  std::optional<std::uint16_t> over() override { return kLogInAgain; }
};

struct UnwelcomingSite final : Site {
  bool asked = false;
  Answer answer(const Request& /*request*/) override {
    asked = true;
    Answer answer;
    answer.peer = std::make_unique<Unwelcome>();
    return answer;
  }
};

/// The handshake's answer is on its way for a while where the other side reads nothing.
TEST(WebConnection, GoodbyeIsSaidBehindTheHandshake) {
  UnwelcomingSite site;
  Wire wire(site);
  wire.send_until(upgrade("/ws/control"), [&site] { return site.asked; });
  ASSERT_TRUE(site.asked);
  wire.check(Clock::now());
  EXPECT_TRUE(wire.take().starts_with("HTTP/1.1 101 "));
  wire.check(Clock::now());
  EXPECT_NE(wire.take().find("\x88\x02\x0F\xA1"), std::string::npos);
}

TEST(WebConnection, AHandshakeThatTakesTooLongIsGivenUp) {
  UnwelcomingSite site;
  Wire wire(site);
  wire.send_until(upgrade("/ws/control"), [&site] { return site.asked; });
  ASSERT_TRUE(site.asked);
  wire.check(Clock::now() + seconds(11));
  wire.take();
  wire.send(frame(0x89, "are you there"));
  EXPECT_EQ(wire.take(), "");
}

/// Answers when the test does.
struct LateSite final : Site {
  Respond respond;
  Answer answer(const Request& request) override {
    Answer answer;
    if (request.target == "/now") {
      answer.response.body = "now\n";
    } else {
      answer.later = [this](Respond whom) { respond = std::move(whom); };
    }
    return answer;
  }
};

TEST(WebConnection, AnAnswerMayTakeItsTime) {
  LateSite site;
  Wire wire(site);
  wire.send(kGet);
  EXPECT_EQ(wire.take(), "");
  wire.check(Clock::now() + seconds(60));  // it is not the other side that is waited for
  wire.send("GET /now HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_EQ(wire.take(), "");
  Response late;
  late.body = "late\n";
  std::exchange(site.respond, nullptr)(std::move(late));
  wire.run();
  const std::string both = wire.take();
  EXPECT_NE(both.find("\r\n\r\nlate\nHTTP/1.1 200 OK"), std::string::npos);
  EXPECT_TRUE(both.ends_with("\r\n\r\nnow\n"));
}

}  // namespace
}  // namespace nimbus::web
