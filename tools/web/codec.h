// What is done to the pictures of a coding: parameter sets are kept, what browsers do not need is
// left out, and the pictures to begin at are found.
#pragma once

#include <memory>

#include "tools/web/picture.h"

namespace nimbus::web {

/// A picture that has been looked at.
struct Look {
  Buffer units;          ///< with start codes of four bytes
  bool picture = false;  ///< there is a slice in it
  bool key = false;
  bool has_sets = false;
  bool follows = false;  ///< by the pictures' own numbers, none that it needs lacks before it
};

class Codec {
 public:
  Codec() = default;
  Codec(const Codec&) = delete;
  Codec& operator=(const Codec&) = delete;
  virtual ~Codec() = default;

  /// Looks at an access unit, and keeps its parameter sets.
  virtual Look look(Bytes access_unit) = 0;

  /// The parameter sets as they stand, with start codes; empty as long as one lacks.
  [[nodiscard]] virtual Buffer parameter_sets() const = 0;

  /// Fills in what a browser must know of a stream with these sets.
  virtual void describe(Epoch& epoch) const = 0;
};

[[nodiscard]] std::unique_ptr<Codec> make_h264();
[[nodiscard]] std::unique_ptr<Codec> make_h265();

/// What a datagram shows of the kind of the stream that it is from: `none` when nothing.
[[nodiscard]] Kind kind_of(Bytes datagram);

}  // namespace nimbus::web
