// Passwords beside the event loop.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

#include "tools/web/verifier.h"

namespace nimbus::web {
namespace {

Passwords two_passwords() {
  Passwords passwords;
  passwords.set(Role::operates, hash_of("boat"));
  passwords.set(Role::viewer, hash_of("shore"));
  return passwords;
}

/// What an event loop does.
void wait_and_collect(Verifier& verifier) {
  pollfd ready{verifier.fd(), POLLIN, 0};
  ASSERT_EQ(poll(&ready, 1, 30'000), 1);
  verifier.collect();
}

std::ptrdiff_t threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

TEST(WebVerifier, EachQuestionIsAnsweredInItsTurn) {
  Verifier verifier;
  const Passwords passwords = two_passwords();
  std::vector<std::optional<Role>> answers;
  const auto note = [&answers](std::optional<Role> role) { answers.push_back(role); };
  for (const char* const word : {"boat", "shore", "wave", ""}) verifier.ask(passwords, word, note);
  EXPECT_TRUE(answers.empty());
  for (int i = 0; i < 4; ++i) wait_and_collect(verifier);
  EXPECT_EQ(answers, (std::vector<std::optional<Role>>{Role::operates, Role::viewer, std::nullopt,
                                                       std::nullopt}));
}

TEST(WebVerifier, NoThreadIsLeft) {
  Verifier verifier;
  const Passwords passwords = two_passwords();
  const auto ask = [&] {
    verifier.ask(passwords, "wave", [](std::optional<Role>) {});
    wait_and_collect(verifier);
    return threads();
  };
  // A sanitizer may have made one of its own by then; the system takes a moment to forget one.
  const auto before = ask();
  for (int i = 0; i < 5; ++i) ask();
  for (int i = 0; i < 1000 && threads() > before; ++i) usleep(1000);
  EXPECT_LE(threads(), before);
}

TEST(WebVerifier, WhoIsToldMayAskAgain) {
  Verifier verifier;
  const Passwords passwords = two_passwords();
  std::optional<Role> last;
  verifier.ask(passwords, "wave", [&](std::optional<Role>) {
    verifier.ask(passwords, "boat", [&last](std::optional<Role> role) { last = role; });
  });
  wait_and_collect(verifier);
  wait_and_collect(verifier);
  EXPECT_EQ(last, Role::operates);
}

TEST(WebVerifier, NothingIsCollectedTooEarly) {
  Verifier verifier;
  std::vector<std::optional<Role>> answers;
  const auto note = [&answers](std::optional<Role> role) { answers.push_back(role); };
  verifier.collect();
  verifier.ask(two_passwords(), "boat", note);
  while (answers.empty()) verifier.collect();
  EXPECT_EQ(answers, std::vector<std::optional<Role>>{Role::operates});
  pollfd ready{verifier.fd(), POLLIN, 0};
  EXPECT_EQ(poll(&ready, 1, 0), 0) << "it was told before it was ready";
}

TEST(WebVerifier, ItsEndTellsNobody) {
  bool told = false;
  {
    Verifier verifier;
    const auto note = [&told](std::optional<Role>) { told = true; };
    for (int i = 0; i < 3; ++i) verifier.ask(two_passwords(), "boat", note);
  }
  EXPECT_FALSE(told);
}

}  // namespace
}  // namespace nimbus::web
