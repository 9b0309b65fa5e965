#include "tools/web/annex_b.h"

#include <array>
#include <cstring>

namespace nimbus::web {

std::size_t find_start_code(Bytes stream, std::size_t from) {
  // The 1 is the rarest of the three.
  for (std::size_t i = from + 2; i < stream.size(); ++i) {
    const void* const found = std::memchr(&stream[i], 1, stream.size() - i);
    if (found == nullptr) break;
    i = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - stream.data());
    if (stream[i - 1] == 0 && stream[i - 2] == 0) return i - 2;
  }
  return stream.size();
}

std::vector<Bytes> units_of(Bytes stream) {
  std::vector<Bytes> units;
  std::size_t code = find_start_code(stream, 0);
  while (code < stream.size()) {
    const std::size_t begin = code + 3;
    code = find_start_code(stream, begin);
    std::size_t end = code;
    while (end > begin && stream[end - 1] == 0) --end;
    if (end > begin) units.push_back(stream.subspan(begin, end - begin));
  }
  return units;
}

void append_unit(Buffer& stream, Bytes unit) {
  constexpr std::array<std::uint8_t, 4> kStartCode{0, 0, 0, 1};
  append(stream, kStartCode);
  append(stream, unit);
}

}  // namespace nimbus::web
