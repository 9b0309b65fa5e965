// Recorded streams of 15 pictures of 64x48, and what hears of them.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tools/web/stream.h"

namespace nimbus::web {

inline Buffer recorded(const std::string& name) {
  const auto streams = std::filesystem::path(NIMBUS_SOURCE_DIR) / "tests/unit/streams";
  std::ifstream file(streams / name, std::ios::binary);
  Buffer content{std::istreambuf_iterator<char>(file), {}};
  EXPECT_FALSE(content.empty()) << name;
  return content;
}

/// Notes everything.
struct Listener final : StreamListener {
  std::vector<SharedEpoch> epochs;
  std::vector<SharedPicture> pictures;
  std::vector<Waiting> waits;

  void on_epoch(const SharedEpoch& epoch) override { epochs.push_back(epoch); }
  void on_picture(const SharedPicture& picture) override { pictures.push_back(picture); }
  void on_waiting(Waiting reason) override { waits.push_back(reason); }
};

/// The pictures of a recorded stream, as they would be cut.
inline std::vector<Buffer> access_units(const Buffer& stream, Coding coding) {
  Assembler assembler;
  assembler.reset(coding);
  Assembler::Units units;
  assembler.take(stream, false, Time{}, units);
  assembler.expire(Time{} + std::chrono::seconds(1), units);
  std::vector<Buffer> pictures;
  for (AccessUnit& unit : units) pictures.push_back(std::move(unit.bytes));
  return pictures;
}

inline std::vector<Buffer> cut(const Buffer& picture, std::size_t size) {
  std::vector<Buffer> pieces;
  for (std::size_t at = 0; at < picture.size(); at += size) {
    const Bytes piece = Bytes(picture).subspan(at, std::min(size, picture.size() - at));
    pieces.emplace_back(piece.begin(), piece.end());
  }
  return pieces;
}

}  // namespace nimbus::web
