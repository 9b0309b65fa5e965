#include "tools/web/sessions.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "tools/common/failure.h"

namespace nimbus::web {
namespace {

std::string random_word() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw tools::Failure("this system has no random numbers");
  }
  std::string word;
  for (const unsigned char byte : bytes) {
    std::array<char, 3> text;
    std::snprintf(text.data(), text.size(), "%02x", byte);
    word += text.data();
  }
  return word;
}

std::string decoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned code = 0;
    if (text[i] == '+') {
      out += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() &&
               std::from_chars(&text[i + 1], &text[i + 1] + 2, code, 16).ptr == &text[i + 1] + 2) {
      out += static_cast<char>(code);
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

std::string Sessions::begin(Role role, Time now) {
  std::erase_if(sessions_, [now](const auto& one) { return now - one.second.used > kRest; });
  if (sessions_.size() >= kMost) {
    sessions_.erase(std::min_element(
        sessions_.begin(), sessions_.end(),
        [](const auto& a, const auto& b) { return a.second.used < b.second.used; }));
  }
  std::string word = random_word();
  sessions_[word] = {role, now};
  return word;
}

std::optional<Role> Sessions::role_of(std::string_view word, Time now) {
  const auto found = sessions_.find(word);
  if (found == sessions_.end()) return std::nullopt;
  if (now - found->second.used > kRest) {
    sessions_.erase(found);
    return std::nullopt;
  }
  found->second.used = now;
  return found->second.role;
}

void Sessions::end(std::string_view word) {
  const auto found = sessions_.find(word);
  if (found != sessions_.end()) sessions_.erase(found);
}

std::string Marks::begin() {
  if (words_.size() >= kMost) words_.pop_front();
  words_.push_back(random_word());
  return words_.back();
}

bool Marks::has(std::string_view word) const {
  return std::find(words_.begin(), words_.end(), word) != words_.end();
}

bool Tries::allowed(const std::string& who, Time now) {
  constexpr std::chrono::minutes kMinute{1};
  while (!tries_.empty() && now - tries_.front().time >= kMinute) tries_.pop_front();
  const auto count = [this](const auto& what) {
    return static_cast<std::size_t>(std::count_if(tries_.begin(), tries_.end(), what));
  };
  const std::size_t of_one = count([&who](const Try& one) { return one.who == who; });
  const bool first = of_one == 0;
  const std::size_t alike = count([first](const Try& one) { return one.first == first; });
  if (of_one >= kMostOfOne || alike >= (first ? kMostFirst : kMostAgain)) return false;
  tries_.push_back({now, who, first});
  return true;
}

std::string_view cookie_of(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const auto end = std::min(header.find(';'), header.size());
    std::string_view part = header.substr(0, end);
    header.remove_prefix(std::min(end + 1, header.size()));
    while (part.starts_with(' ')) part.remove_prefix(1);
    const auto equals = std::min(part.find('='), part.size());
    if (equals < part.size() && part.substr(0, equals) == name) return part.substr(equals + 1);
  }
  return {};
}

std::string form_value(std::string_view form, std::string_view name) {
  while (!form.empty()) {
    const auto end = std::min(form.find('&'), form.size());
    const std::string_view part = form.substr(0, end);
    form.remove_prefix(std::min(end + 1, form.size()));
    const auto equals = std::min(part.find('='), part.size());
    if (equals < part.size() && part.substr(0, equals) == name) {
      return decoded(part.substr(equals + 1));
    }
  }
  return {};
}

}  // namespace nimbus::web
