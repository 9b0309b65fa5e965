#include "tools/ctl/mdns.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace nimbus::ctl {
namespace {

using namespace std::string_view_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t kId = 0x4242;
constexpr std::uint32_t kSender = 0xC0A8'0107;

Bytes bytes(std::string_view text) { return {text.begin(), text.end()}; }

Bytes joined(std::initializer_list<std::string_view> parts) {
  Bytes all;
  for (const std::string_view part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Where each begins in an answer of these, in hexadecimal: 0, 0C, 24, 3F, 56; it ends at 66.
constexpr auto kHead = "\x42\x42\x84\0\0\1\0\1\0\0\0\2"sv;
constexpr auto kQuestion = "\7_nimbus\4_udp\5local\0\0\x0C\0\1"sv;
constexpr auto kPointer = "\xC0\x0C\0\x0C\0\1\0\0\0\x0A\0\x0F\x0CNimbus on pi\xC0\x0C"sv;
constexpr auto kServer = "\xC0\x30\0\x21\x80\1\0\0\0\x0A\0\x0B\0\0\0\0\x10\x92\2pi\xC0\x19"sv;
constexpr auto kAddress = "\xC0\x51\0\1\x80\1\0\0\0\x0A\0\4\xC0\xA8\1\5"sv;

Bytes answer() { return joined({kHead, kQuestion, kPointer, kServer, kAddress}); }

/// The answer with one byte changed.
Bytes answer_with(std::size_t at, int value) {
  Bytes changed = answer();
  changed.at(at) = static_cast<std::uint8_t>(value);
  return changed;
}

std::size_t found(const Bytes& message) { return boards_of(message, kId, kSender).size(); }

TEST(Mdns, Query) {
  EXPECT_EQ(board_query(kId),
            bytes("\x42\x42\0\0\0\1\0\0\0\0\0\0\7_nimbus\4_udp\5local\0\0\x0C\0\1"sv));
}

TEST(Mdns, Answer) {
  const auto boards = boards_of(answer(), kId, kSender);
  ASSERT_EQ(boards.size(), 1U);
  EXPECT_EQ(boards[0].name, "Nimbus on pi");
  EXPECT_EQ(boards[0].host, "pi.local");
  EXPECT_EQ(boards[0].address, 0xC0A8'0105U);
  EXPECT_EQ(boards[0].port, 4242);
}

TEST(Mdns, AddressOfTheSender) {
  // Without an address, and with several of which it is one.
  Bytes none = joined({kHead, kQuestion, kPointer, kServer});
  none[11] = 1;
  EXPECT_EQ(boards_of(none, kId, kSender).at(0).address, kSender);
  auto second = std::string(kAddress);
  second.back() = 7;
  Bytes two = joined({kHead, kQuestion, kPointer, kServer, kAddress, second});
  two[11] = 3;
  EXPECT_EQ(boards_of(two, kId, kSender).at(0).address, kSender);
}

TEST(Mdns, NoMatterInWhichLetters) {
  Bytes message = answer();
  message[0x0E] = 'N';
  message[0x16] = 'U';
  EXPECT_EQ(found(message), 1U);
}

TEST(Mdns, WhatCutsAnAnswerSpoilsIt) {
  const Bytes whole = answer();
  for (std::size_t size = 0; size < whole.size(); ++size) {
    // Exactly as long as its memory, so that a sanitizer sees what is read behind it.
    EXPECT_EQ(found(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))), 0U)
        << size;
  }
}

TEST(Mdns, EveryByteMayHaveEveryValue) {
  for (std::size_t at = 0; at < answer().size(); ++at) {
    for (int value = 0; value < 256; ++value) EXPECT_LE(found(answer_with(at, value)), 1U);
  }
}

TEST(Mdns, NoAnswer) {
  struct Row {
    const char* remark;
    std::size_t at;
    int value;
  };
  const Row rows[] = {
      {"another id", 0x01, 0x43},
      {"a question", 0x02, 0x04},
      {"another operation", 0x02, 0x8C},
      {"an error", 0x03, 0x03},
      {"a service of another kind", 0x0E, 'x'},
      {"of another class", 0x29, 3},
      {"an instance of another service", 0x3E, 0x14},
      {"that says good-bye", 0x2D, 0},
      {"a length that is too small", 0x2F, 0x0E},
      {"a length that is too great", 0x2F, 0x10},
      {"a name that goes on in itself", 0x3E, 0x30},
      {"a name that goes on behind itself", 0x3E, 0x51},
      {"a label of no known kind", 0x30, 0x4C},
      {"the place of another instance", 0x40, 0x0C},
  };
  for (const auto& [remark, at, value] : rows) {
    EXPECT_EQ(found(answer_with(at, value)), 0U) << remark;
  }
  Bytes no_port = answer_with(0x4F, 0);
  no_port[0x50] = 0;
  EXPECT_EQ(found(no_port), 0U);
}

TEST(Mdns, NamesHaveALimit) {
  // Behind the answer: a record whose name has 3 labels of 63 bytes and one of `last`.
  for (const std::size_t last : {61U, 62U}) {
    Bytes message = answer();
    message[11] = 3;
    for (const std::size_t length : {std::size_t{63}, std::size_t{63}, std::size_t{63}, last}) {
      message.push_back(static_cast<std::uint8_t>(length));
      message.insert(message.end(), length, 'a');
    }
    const auto rest = "\0\0\x10\0\1\0\0\0\x0A\0\0"sv;
    message.insert(message.end(), rest.begin(), rest.end());
    EXPECT_EQ(found(message), last == 61 ? 1U : 0U);
  }
}

}  // namespace
}  // namespace nimbus::ctl
