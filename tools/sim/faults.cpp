#include "tools/sim/faults.h"

#include <array>
#include <set>
#include <string>

#include "base/word_table.h"
#include "tools/common/failure.h"
#include "tools/common/numbers.h"

namespace nimbus::sim {
namespace {

using tools::Failure;
using tools::parse_real;

constexpr std::array<Word<double FaultRates::*>, 4> kNames{{
    {"drop", &FaultRates::drop},
    {"corrupt", &FaultRates::corrupt},
    {"truncate", &FaultRates::truncate},
    {"repeat", &FaultRates::repeat},
}};

}  // namespace

FaultRates parse_fault_rates(std::string_view text) {
  FaultRates rates;
  std::set<std::string_view> seen;
  for (;;) {
    const auto comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    const auto equals = item.find('=');
    const std::string_view name = item.substr(0, equals);
    const auto* const rate = find_word(kNames, name);
    if (rate == nullptr || equals == std::string_view::npos) {
      throw Failure("'" + std::string(item) +
                    "' is no fault; expected drop=RATE, corrupt=RATE, truncate=RATE or "
                    "repeat=RATE, commas between them");
    }
    if (!seen.insert(name).second) {
      throw Failure("'" + std::string(name) + "' is given twice; expected each fault once");
    }
    const auto value = parse_real(item.substr(equals + 1));
    if (!value || *value < 0 || *value > 1) {
      throw Failure("'" + std::string(item) + "' has no rate; expected a number from 0 to 1");
    }
    rates.*(*rate) = *value;
    if (comma == std::string_view::npos) return rates;
    text.remove_prefix(comma + 1);
  }
}

// The distributions of the standard library differ between its makers; these do not.

double Faults::next() {
  constexpr int kUnusedBits = 11;
  return static_cast<double>(random_() >> kUnusedBits) * 0x1p-53;
}

std::size_t Faults::below(std::size_t limit) {
  return static_cast<std::size_t>(next() * static_cast<double>(limit));
}

std::vector<std::vector<std::uint8_t>> Faults::strike(std::vector<std::uint8_t> frame) {
  // All are thrown for every frame, whatever comes of it: the luck of the next one must not depend
  // on this one.
  const bool drop = next() < rates_.drop;
  const bool corrupt = next() < rates_.corrupt;
  const bool truncate = next() < rates_.truncate;
  const bool repeat = next() < rates_.repeat;
  const std::size_t bit = below(frame.size() * 8);
  const std::size_t length = 1 + below(frame.size() - 1);
  if (drop) {
    ++counts_.dropped;
    return {};
  }
  if (corrupt) {
    ++counts_.corrupted;
    frame[bit / 8] = static_cast<std::uint8_t>(frame[bit / 8] ^ 1U << bit % 8);
  }
  if (truncate) {
    ++counts_.truncated;
    frame.resize(length);
  }
  if (!repeat) return {std::move(frame)};
  ++counts_.repeated;
  return {frame, frame};
}

}  // namespace nimbus::sim
