#include "tools/web/bits.h"

namespace nimbus::web {

Buffer unescaped(Bytes unit) {
  Buffer content;
  content.reserve(unit.size());
  unsigned zeros = 0;
  for (const std::uint8_t byte : unit) {
    if (zeros >= 2 && byte == 3) {
      zeros = 0;
      continue;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    content.push_back(byte);
  }
  return content;
}

Buffer escaped(Bytes content) {
  Buffer unit;
  unit.reserve(content.size() + 8);
  unsigned zeros = 0;
  for (const std::uint8_t byte : content) {
    if (zeros >= 2 && byte <= 3) {
      unit.push_back(3);
      zeros = 0;
    }
    zeros = byte == 0 ? zeros + 1 : 0;
    unit.push_back(byte);
  }
  return unit;
}

std::uint32_t BitReader::bits(unsigned count) {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < count; ++i, ++position_) {
    const std::size_t byte = position_ / 8;
    if (byte >= bytes_.size()) {
      ok_ = false;
      value <<= 1U;
      continue;
    }
    value = value << 1U | (bytes_[byte] >> (7 - position_ % 8) & 1U);
  }
  return value;
}

void BitReader::skip(unsigned count) {
  position_ += count;
  if (position_ > bytes_.size() * 8) ok_ = false;
}

std::uint32_t BitReader::ue() {
  unsigned zeros = 0;
  while (ok_ && zeros < 32 && !flag()) ++zeros;
  if (zeros >= 32) {
    ok_ = false;  // no code of a stream is that long
    return 0;
  }
  return (1U << zeros) - 1 + bits(zeros);
}

std::int32_t BitReader::se() {
  const std::uint32_t code = ue();
  const auto half = static_cast<std::int32_t>(code / 2);
  return code % 2 != 0 ? half + 1 : -half;
}

void BitWriter::bits(std::uint32_t value, unsigned count) {
  for (unsigned i = count; i > 0; --i) {
    if (free_ == 0) {
      bytes_.push_back(0);
      free_ = 8;
    }
    --free_;
    bytes_.back() = static_cast<std::uint8_t>(bytes_.back() | (value >> (i - 1) & 1U) << free_);
  }
}

void BitWriter::ue(std::uint32_t value) {
  const std::uint32_t code = value + 1;
  unsigned length = 1;
  while (code >> length != 0) ++length;
  bits(0, length - 1);
  bits(code, length);
}

void BitWriter::copy(Bytes bytes, std::size_t count) {
  BitReader reader(bytes);
  for (; count >= 8; count -= 8) bits(reader.bits(8), 8);
  const auto rest = static_cast<unsigned>(count);
  bits(reader.bits(rest), rest);
}

Buffer BitWriter::finish() {
  bits(1, 1);
  return std::move(bytes_);
}

}  // namespace nimbus::web
