#include "bench/table.h"

#include <array>
#include <cstdio>

namespace nimbus::bench {
namespace {

std::string fixed(double value, int decimals) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  return text.data();
}

std::string figure(double value, const char* unit) {
  return fixed(value, value < 10 ? 3 : 1) + " " + unit;
}

std::string limit_of(double value) { return fixed(value, value < 10 ? 2 : 0); }

bool holds(double value, const std::optional<double>& limit) { return !limit || value <= *limit; }

void print_line(const std::array<std::string, 7>& cells) {
  constexpr std::array kWidths{-42, 11, -26, 6, 9, 6, 6};
  for (std::size_t i = 0; i < cells.size(); ++i) {
    std::printf("| %*s ", kWidths[i], cells[i].c_str());
  }
  std::puts("|");
}

void print_header() {
  print_line({"What is measured", "Service", "Compared with", "Ratio", "Limit", "Spread", ""});
  std::puts("|---|--:|---|--:|--:|--:|---|");
}

}  // namespace

void Table::add(const Row& row) {
  if (header_is_due_) print_header();
  header_is_due_ = false;
  std::string comparison;
  std::string ratio;
  std::string limit;
  std::string spread;
  bool row_holds = holds(row.figure, row.limit);
  if (row.limit) limit = limit_of(*row.limit) + " " + row.unit;
  if (const auto& other = row.comparison) {
    comparison = figure(other->figure, row.unit) + ", " + other->with;
    ratio = fixed(other->ratio, 3);
    if (other->limit) limit = limit_of(*other->limit);
    if (other->spread) spread = fixed(*other->spread, 3);
    row_holds = row_holds && holds(other->ratio, other->limit);
  }
  print_line({row.what, figure(row.figure, row.unit), comparison, ratio, limit, spread,
              row_holds ? "" : "MISSED"});
  all_hold_ = all_hold_ && row_holds;
}

}  // namespace nimbus::bench
