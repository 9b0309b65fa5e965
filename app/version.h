// The version of this build. CMakeLists.txt reads it from here, so that it stands once.
#pragma once

namespace nimbus {

inline constexpr int kVersionMajor = 0;
inline constexpr int kVersionMinor = 3;
inline constexpr int kVersionPatch = 7;

}  // namespace nimbus
