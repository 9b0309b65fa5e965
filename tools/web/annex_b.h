// A stream of units with start codes between them (ITU-T H.264 and H.265, annex B).
#pragma once

#include <cstdint>

#include "tools/web/bytes.h"

namespace nimbus::web {

/// Where the next start code (00 00 01) begins, at or behind `from`; the size when there is none.
[[nodiscard]] std::size_t find_start_code(Bytes stream, std::size_t from);

/// The units of a stream that begins with a start code, without the codes and the zeros before
/// them. Whatever stands before the first code is left out, and so are empty units.
[[nodiscard]] std::vector<Bytes> units_of(Bytes stream);

/// Appends a unit behind a start code of four bytes.
void append_unit(Buffer& stream, Bytes unit);

}  // namespace nimbus::web
